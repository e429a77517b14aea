// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Sandbox.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VornTest {

namespace {

const char pipeDirectoryPath[] = "/opt/vorn/hostmgr/var/lib/kestrel/rendez/";
const char kitDirectoryPath[] = "/opt/.vorntest";
const char hostsPath[] = "/opt/.vorntest/hosts";
const char groupPath[] = "/opt/.vorntest/group";
const char nsswitchPath[] = "/opt/.vorntest/nsswitch.conf";
const char defaultHosts[] = "127.0.0.1 localhost\n";
const char defaultGroups[] = "root:x:0:\n";
const char sandboxVariable[] = "VORNTEST_IN_SANDBOX";
const char inPlaceVariable[] = "VORNTEST_IN_PLACE";
const char needVariable[] = "VORNTEST_NEED"; // of a whole program, from its CMakeLists.txt
// Written by script/test when it has created the pipe directory for the tests.
const char createdMarkPath[] = "/opt/vorn/hostmgr/var/lib/kestrel/.created-for-a-run";
constexpr int skippedStatus = 77; // SKIP_RETURN_CODE of every test

const char namespaceRemedy[] =
    "run the tests as root or allow unprivileged user name spaces (sysctl user.max_user_namespaces, "
    "kernel.unprivileged_userns_clone, kernel.apparmor_restrict_unprivileged_userns)";
const char mountRemedy[] =
    "run the tests where mounting in a private name space is allowed, and see that the "
    "directory or file exists";
const char fileRemedy[] = "this happens on the sandbox's own tmpfs: see that there is free memory";

[[noreturn]] void giveUp(const std::string& call, const char* remedy) {
    const int error = errno;
    std::fprintf(stderr, "test sandbox: %s failed: %s; remedy: %s\n", call.c_str(), std::strerror(error),
                 remedy);
    std::fflush(stderr);
    // No destructor and no exit handler may run: half a sandbox is the host for some of them.
    ::_exit(2);
}

int writeWhole(const char* path, const std::string& text, int flags) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC | flags, 0644);
    if (fd < 0)
        return -1;
    const ssize_t written = ::write(fd, text.data(), text.size());
    const int error = errno;
    ::close(fd);
    errno = written < 0 ? error : ENOSPC;
    return written == static_cast<ssize_t>(text.size()) ? 0 : -1;
}

void writeMap(const char* path, const std::string& text) {
    if (writeWhole(path, text, 0) != 0)
        giveUp(std::string("write(") + path + ")", namespaceRemedy);
}

void becomeRootOfUserNamespace(uid_t user, gid_t group) {
    // The kernel refuses a group map of an ordinary user until setgroups() is given up.
    writeMap("/proc/self/setgroups", "deny");
    writeMap("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    writeMap("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

void unshareNamespaces() {
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    const int flags = CLONE_NEWNS | CLONE_NEWNET;
    if (user == 0 && ::unshare(flags) == 0)
        return;
    // Root without CAP_SYS_ADMIN, as in a container, is no better off than an ordinary user.
    if (::unshare(flags | CLONE_NEWUSER) != 0)
        giveUp("unshare(CLONE_NEWUSER|CLONE_NEWNS|CLONE_NEWNET)", namespaceRemedy);
    becomeRootOfUserNamespace(user, group);
}

void mountOrGiveUp(const char* source, const char* target, const char* type, unsigned long flags,
                   const char* data) {
    if (::mount(source, target, type, flags, data) != 0)
        giveUp(std::string("mount(") + source + ", " + target + ")", mountRemedy);
}

void makeDirectory(const std::string& path, mode_t mode) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    errno = error.value();
    if (error || ::chmod(path.c_str(), mode) != 0)
        giveUp("mkdir(" + path + ")", fileRemedy);
}

void makePipeDirectory() {
    makeDirectory(pipeDirectoryPath, 0770);
}

void coverFile(const char* own, const char* covered, const std::string& text) {
    if (writeWhole(own, text, O_CREAT | O_TRUNC) != 0 || ::chmod(own, 0644) != 0)
        giveUp(std::string("write(") + own + ")", fileRemedy);
    mountOrGiveUp(own, covered, "none", MS_BIND, nullptr);
}

void isolateNameService() {
    makeDirectory(kitDirectoryPath, 0755);
    coverFile(nsswitchPath, "/etc/nsswitch.conf",
              "passwd: files\ngroup: files\nhosts: files\nservices: files\nprotocols: files\n");
    coverFile(hostsPath, "/etc/hosts", defaultHosts);
    coverFile(groupPath, "/etc/group", defaultGroups);
    // A caching daemon of the host would be reached through its socket, whatever the network name space.
    if (::access("/run/nscd", F_OK) == 0)
        mountOrGiveUp("tmpfs", "/run/nscd", "tmpfs", 0, "mode=0755");
}

void bringLoopbackUp() {
    const char remedy[] = "run the tests on a kernel with IPv4 and a loopback interface";
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        giveUp("socket(AF_INET)", remedy);
    ifreq request = {};
    std::memcpy(request.ifr_name, "lo", sizeof("lo"));
    if (::ioctl(fd, SIOCGIFFLAGS, &request) != 0)
        giveUp("ioctl(SIOCGIFFLAGS, lo)", remedy);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
    if (::ioctl(fd, SIOCSIFFLAGS, &request) != 0)
        giveUp("ioctl(SIOCSIFFLAGS, lo up)", remedy);
    ::close(fd);
}

void buildSandbox() {
    unshareNamespaces();
    mountOrGiveUp("none", "/", "none", MS_REC | MS_PRIVATE, nullptr);
    mountOrGiveUp("tmpfs", "/opt", "tmpfs", 0, "mode=0755");
    makePipeDirectory();
    isolateNameService();
    bringLoopbackUp();
    if (::setenv(sandboxVariable, "1", 1) != 0)
        giveUp("setenv(VORNTEST_IN_SANDBOX)", fileRemedy);
}

void rewrite(const char* path, const std::string& text) {
    // The file stays the same one, so that the mount made at the start goes on showing it.
    if (writeWhole(path, text, O_TRUNC) != 0)
        throw std::system_error(errno, std::generic_category(), path);
}

bool isInPlace() {
    return std::getenv(inPlaceVariable) != nullptr;
}

/**
 * Leaves nothing of an earlier test in the pipe directory. Children of the test find the variable changed.
 */
void preparePlace() {
    if (const char* need = std::getenv(needVariable))
        needSandbox(need);
    const std::string entered = "entered";
    if (std::getenv(inPlaceVariable) == entered)
        return;
    if (::access(createdMarkPath, F_OK) != 0) {
        giveUp(std::string("access(") + createdMarkPath + ")",
               "let script/test create the pipe directory: one that was not created for tests may be in use");
    }
    std::filesystem::remove_all(pipeDirectoryPath);
    makePipeDirectory();
    if (::setenv(inPlaceVariable, entered.c_str(), 1) != 0)
        giveUp("setenv(VORNTEST_IN_PLACE)", fileRemedy);
}

bool insideSandbox() {
    // The variable alone could come from a careless shell, and the tests would then work on the host.
    struct statfs information = {};
    return std::getenv(sandboxVariable) != nullptr && ::statfs(kitDirectoryPath, &information) == 0 &&
           information.f_type == TMPFS_MAGIC && ::access(hostsPath, F_OK) == 0;
}

bool hasOneThread() {
    struct stat information = {};
    // The link count of a proc task directory is two plus the number of threads.
    return ::stat("/proc/self/task", &information) == 0 && information.st_nlink == 3;
}

std::vector<std::string> commandLine() {
    std::ifstream file("/proc/self/cmdline");
    if (!file)
        giveUp("open(/proc/self/cmdline)", "mount /proc");
    std::vector<std::string> arguments;
    for (std::string argument; std::getline(file, argument, '\0');)
        arguments.push_back(argument);
    return arguments;
}

[[noreturn]] void restartInSandbox(std::vector<std::string>& arguments, pid_t parent) {
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent)
        ::_exit(2);
    buildSandbox();
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    ::execv("/proc/self/exe", pointers.data());
    giveUp("execv(/proc/self/exe)", "see that the test program is readable and executable for its user");
}

[[noreturn]] void endLikeChild(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            giveUp("waitpid()", "do not ignore SIGCHLD");
    }
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

/*
 * A thread sanitizer's own thread is there before main(), and the kernel does not let a process with threads
 * enter a user name space. A forked process has one thread, provided that it is forked after the
 * sanitizer's back, for otherwise it would start its thread anew.
 */
[[noreturn]] void runInForkedSandbox() {
    std::vector<std::string> arguments = commandLine();
    const pid_t parent = ::getpid();
    const long child = ::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr);
    if (child < 0)
        giveUp("clone()", "see the limits of the number of processes");
    if (child == 0)
        restartInSandbox(arguments, parent);
    endLikeChild(static_cast<pid_t>(child));
}

} // namespace

void enterSandbox() {
    if (isInPlace()) {
        preparePlace();
        return;
    }
    if (insideSandbox())
        return;
    if (hasOneThread()) {
        buildSandbox();
    } else {
        runInForkedSandbox();
    }
}

void needSandbox(const char* need) {
    if (isInPlace()) {
        std::printf("not tested in place: it needs %s\n", need);
        std::fflush(stdout);
        ::_exit(skippedStatus);
    }
}

void enterFreshNetwork() {
    needSandbox("a network of its own");
    if (::unshare(CLONE_NEWNET) != 0)
        giveUp("unshare(CLONE_NEWNET)", namespaceRemedy);
    bringLoopbackUp();
}

const char* pipeDirectory() {
    return pipeDirectoryPath;
}

std::string pipePath(const std::string& name) {
    return pipeDirectoryPath + name;
}

void useHostsFile(const std::string& text) {
    needSandbox("its own hosts file");
    rewrite(hostsPath, text);
}

void useGroupFile(const std::string& text) {
    needSandbox("its own group file");
    rewrite(groupPath, text);
}

void restoreSystemFiles() {
    if (isInPlace())
        return;
    rewrite(hostsPath, defaultHosts);
    rewrite(groupPath, defaultGroups);
}

} // namespace VornTest
