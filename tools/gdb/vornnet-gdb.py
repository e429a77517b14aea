# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Shows vornnet's objects in gdb as what they are: where a connection leads, who waits on a server, what a
smart pointer holds, what is in a registry.

gdb loads this file by itself when it loads libvornnet.so.1 and the file is installed where it looks;
elsewhere `source` does it. Nothing here calls a function of the program, so core dumps are shown like live
processes, and `vornnet log-level N` sets the level of a process that was stopped anywhere. What cannot be read, or makes no sense, becomes a text in angle brackets: an object that has been
destroyed or overwritten is often what the debugger was started for.
"""
import errno
import re

import gdb
import gdb.printing
import gdb.xmethod

# A descriptor is a small number; what is larger is no descriptor but a sign of a cell that is gone.
LARGEST_DESCRIPTOR = 1 << 20
LONGEST_TEXT = (1 << 31) - 1
LONGEST_LIST = 100000

NO_SYMBOLS = "no debug symbols of the library"


class Unreadable(Exception):
    """What was to be read is not there, or is not what it should be."""


# Memory and texts.


def read(address, size):
    try:
        return bytes(gdb.selected_inferior().read_memory(address, size))
    except gdb.error as error:
        raise Unreadable("cannot read memory at 0x%x" % address) from error


def read_number(address, size):
    return int.from_bytes(read(address, size), "little")


def shown_elements():
    """How much of a text or list is shown, as set by `set print elements`."""
    return gdb.parameter("print elements") or LONGEST_LIST


def is_showable(character):
    try:
        character.encode(gdb.host_charset())
    except (UnicodeError, LookupError):
        return False
    return character.isprintable()


def escaped(character):
    if character in '"\\':
        return "\\" + character
    if is_showable(character):
        return character
    return "".join("\\x%02x" % byte for byte in character.encode("utf-8", "surrogateescape"))


def quoted(characters, is_whole):
    return '"' + "".join(escaped(character) for character in characters) + ('"' if is_whole else '"...')


def named(text):
    """A name without its quotes, where it can do without."""
    bare = text[1:-1]
    return bare if re.fullmatch(r"[!#-\[\]-~]+", bare) else text


def string_parts(string):
    """Where a std::basic_string has its characters, and how many. Its own description need not be there: a
    compiler may leave it to the standard library's debug symbols."""
    try:
        return int(string["_M_dataplus"]["_M_p"]), int(string["_M_string_length"])
    except gdb.MemoryError as error:
        raise Unreadable("cannot read memory at 0x%x" % int(string.address)) from error
    except gdb.error:
        if string.address is None:
            raise
        address = int(string.address)
        return read_number(address, 8), read_number(address + 8, 8)


def shown_text(string, width, decoded):
    """A text of characters that take so many bytes, as much of it as is shown."""
    try:
        start, size = string_parts(string)
        if size > LONGEST_TEXT:
            raise Unreadable("no text: its length would be %d" % size)
        shown = min(size, shown_elements())
        data = read(start, shown * width) if shown else b""
    except Unreadable as problem:
        return "<%s>" % problem
    return quoted(decoded(data), shown == size)


def narrow_text(string):
    return shown_text(string, 1, lambda data: data.decode("utf-8", "surrogateescape"))


def wide_character(number):
    is_character = number <= 0x10FFFF and not 0xD800 <= number <= 0xDC7F and not 0xDD00 <= number <= 0xDFFF
    return chr(number) if is_character else "\ufffd"


def wide_text(string):
    def decoded(data):
        numbers = (int.from_bytes(data[at : at + 4], "little") for at in range(0, len(data), 4))
        return "".join(map(wide_character, numbers))

    return shown_text(string, 4, decoded)


def name_field(value, field):
    return named(narrow_text(value[field]))


def counted(number, noun, plural=None):
    return "%s %s" % (number or "no", noun if number == 1 else plural or noun + "s")


def joined(*parts):
    return ", ".join(part for part in parts if part)


# The log level, which can be changed as well.

LOG_LEVEL = "*(int*)&VornSupport::VornLogging::s_nLogLevel"
ADMITTED_LEVEL = "*(int*)&VornSupport::VornLogging::s_nAdmittedLevel"
ACCESS_ALLOWED = "*(bool*)&VornSupport::VornLogging::s_bAccessAllowed"


def in_cpp(expression):
    """Evaluates it wherever the program has stopped: after `gdb -p` that is a function of C. The types are
    given, so no debug symbols are needed."""
    language = gdb.parameter("language")
    gdb.execute("set language c++", to_string=True)
    try:
        return gdb.parse_and_eval(expression)
    finally:
        gdb.execute("set language " + language, to_string=True)


def logger_state():
    is_allowed = bool(in_cpp(ACCESS_ALLOWED))
    return "logger, level %d, access %s" % (int(in_cpp(LOG_LEVEL)), "allowed" if is_allowed else "forbidden")


class Commands(gdb.Command):
    """Commands for programs that use vornnet."""

    def __init__(self):
        super().__init__("vornnet", gdb.COMMAND_DATA, prefix=True)


class LogLevel(gdb.Command):
    """Set the level up to which the library logs: vornnet log-level N, from -1 for nothing to 9 for all."""

    def __init__(self):
        super().__init__("vornnet log-level", gdb.COMMAND_DATA)

    def invoke(self, argument, _from_tty):
        if not re.fullmatch(r"-1|\d", argument.strip()):
            raise gdb.GdbError("vornnet log-level N: N is a number from -1 to 9")
        # Written into memory, as the tracer does it: a call could wait for a lock that the program holds.
        in_cpp("%s = %s" % (LOG_LEVEL, argument))
        if in_cpp(ACCESS_ALLOWED):
            in_cpp("%s = %s" % (ADMITTED_LEVEL, argument))
        print(logger_state())


# Objects and their classes.


def class_name(type_):
    return type_.strip_typedefs().unqualified().name or ""


def is_polymorphic(type_):
    fields = type_.strip_typedefs().fields()
    return any(field.name.startswith("_vptr") for field in fields if field.name) or any(
        is_polymorphic(field.type) for field in fields if field.is_base_class
    )


def table_of_functions(value):
    """The class that the object's table of virtual functions belongs to; None where there is no symbol for
    it, as in a program that was stripped. The library's are there without debug information, too."""
    table = read_number(int(value.address), 8)
    symbol = gdb.execute("info symbol 0x%x" % table, to_string=True).strip()
    match = re.match(r"vtable for (.+?)(?: \+ \d+)?(?: in section .*)?$", symbol)
    if match is not None:
        return match.group(1)
    if symbol.startswith("No symbol"):
        try:
            read(table, 8)
            return None
        except Unreadable:
            pass
    raise Unreadable("no object: its first word is 0x%x" % table)


def has_base(type_, name):
    return any(
        class_name(field.type) == name or has_base(field.type, name)
        for field in type_.strip_typedefs().fields()
        if field.is_base_class
    )


def most_derived(value):
    """The whole object of which @p value is a part. gdb would believe any table of functions, also the one
    that a destructor leaves, so that is looked at first."""
    if value.address is None or not is_polymorphic(value.type):
        return value
    name = table_of_functions(value)
    if name is None or name == class_name(value.type):
        return value
    if has_base(value.type, name):
        raise Unreadable("destroyed: only its %s is left" % name)
    try:
        target = value.dynamic_type
        if target.code == gdb.TYPE_CODE_STRUCT and target.fields():
            return value.address.cast(target.pointer()).dereference()
    except gdb.error:
        pass
    return value


def other_class(value):
    """The object's class where there is no description of it."""
    name = table_of_functions(value)
    return "" if name in (None, class_name(value.type)) else " of class " + name


def describer_of(type_):
    """The function that describes objects of this class, by the nearest class that is known."""
    name = class_name(type_)
    known = DESCRIBERS.get(name) or (describe_smart_pointer if is_smart_pointer(name) else None)
    if known is not None:
        return known, name
    for field in type_.strip_typedefs().fields():
        if field.is_base_class:
            found = describer_of(field.type)
            if found is not None:
                return found
    return None


def describe(value):
    """One line for an object of one of the library's classes or of a class derived from one."""
    found = describer_of(value.type)
    if found is None:
        return "<%s>" % class_name(value.type)
    function, known_name = found
    text = function(value)
    name = class_name(value.type)
    return text if name == known_name else joined(text, "of class " + name)


def failure(value, problem):
    text = str(problem).rstrip(".")
    if text.startswith("There is no "):
        text = NO_SYMBOLS
    place = " at 0x%x" % int(value.address) if value.address is not None else ""
    return "<%s%s: %s>" % (class_name(value.type), place, text)


def described(value):
    """As describe(), of the whole object; what goes wrong becomes the text."""
    try:
        if not value.type.strip_typedefs().fields():
            return without_layout(value)
        value = most_derived(value)
        return describe(value)
    except Exception as problem:  # pylint: disable=broad-except
        return failure(value, problem)


def without_layout(value):
    name = table_of_functions(value) or class_name(value.type)
    return "<%s at 0x%x: %s>" % (name, int(value.address), NO_SYMBOLS)


def references(value):
    return counted(int(value["m_nRefCount"]), "reference")


def descriptor(cell):
    """The descriptor in a connection's or server's cell; None without a cell."""
    address = int(cell)
    if address == 0:
        return None
    number = read_number(address, 4)
    if number > LARGEST_DESCRIPTOR:
        raise Unreadable("the cell at 0x%x holds 0x%x, which is no descriptor" % (address, number))
    return number


# Connections.


def traits(value):
    service = name_field(value, "m_sServiceName")
    return joined(
        "service " + service if service != '""' else "",
        "raw" if value["m_bRaw"] else "",
        "local access" if value["m_bLocalAccess"] else "",
        references(value),
    )


def socket_state(value, number):
    if number is None:
        return "connected without a socket" if value["m_bConnected"] else "not connected"
    return "%s, descriptor %d" % ("connected" if value["m_bConnected"] else "connecting", number)


def describe_socket(value, kind="TCP connection"):
    name = name_field(value, "m_sRemoteName")
    state = socket_state(value, descriptor(value["m_pClient"]))
    if value["m_bClientConnection"]:
        port = int(value["m_nPort"]) & 0xFFFF
        return joined("%s to %s" % (kind, name) + (":%d" % port if port else ""), state, traits(value))
    server = value["m_pSourceServer"]
    accepted = "accepted" if int(server) == 0 else "accepted on port %d" % int(server["m_nPort"])
    return joined(kind + ("" if name == '""' else " from " + name), accepted, state, traits(value))


def describe_ssl_socket(value):
    return describe_socket(value, "SSL connection")


def describe_pipe(value):
    name = name_field(value, "m_sPipeName")
    number = descriptor(value["m_pipeHandle"])
    if name == '""':
        # An accepted connection is connected by its descriptor alone.
        state = "not connected" if number is None else "connected, descriptor %d" % number
        start = "pipe connection, accepted"
    else:
        state = socket_state(value, number)
        start = "pipe connection to " + name
    rights = int(value["m_iAccessRights"])
    return joined(start, state, "access rights %d" % rights if rights != 1 else "", traits(value))


def hex_text(data, is_whole):
    return " ".join("%02x" % byte for byte in data) + ("" if is_whole else " ...")


def buffer_state(value):
    first, end = int(value["m_nInIndex"]), int(value["m_nOutIndex"])
    capacity, block = int(value["m_nBufferSize"]), int(value["m_pDataBuffer"])
    if first == -1 and end == -1:
        return "nothing written"
    if not 0 <= first <= end <= capacity:
        raise Unreadable("positions %d and %d in %d bytes make no sense" % (first, end, capacity))
    shown = min(end - first, 16)
    text = "%s written, %d waiting" % (counted(end, "byte"), end - first)
    if shown > 0:
        text += ": " + hex_text(read(block + first, shown), shown == end - first)
    return joined(text, "capacity %d" % capacity)


def describe_buffer(value):
    name = name_field(value, "m_sRemoteName")
    peer = "" if name == '""' else " from " + name
    return joined("buffer connection" + peer, buffer_state(value), traits(value))


def describe_udp(value):
    port = int(value["m_nPort"]) & 0xFFFF
    peer = "%s:%d" % (name_field(value, "m_sRemoteName"), port)
    return joined("UDP connection to " + peer, buffer_state(value), traits(value))


def describe_connection(value):
    """Of a class whose debug information is missing, or of the program's own."""
    peer = name_field(value, "m_sRemoteName")
    state = "connected" if value["m_bConnected"] else "not connected"
    start = "connection%s%s" % (other_class(value), "" if peer == '""' else " to " + peer)
    return joined(start, state, traits(value))


# Servers.


def concerned_threads(server):
    """Who is concerned with a TCP or UDP server just now: waiting threads and closing ones, from the
    library's list of them."""
    def count(name):
        found = 0
        thread = gdb.parse_and_eval("VornNet::ServerGate::%s.m_first" % name)
        for _ in range(LONGEST_LIST):
            if int(thread) == 0:
                break
            found += int(thread["m_server"]) == server
            thread = thread["m_next"]
        return found

    try:
        waiting = count("s_waits")
        closing = count("s_closings")
    except gdb.error:
        return ""
    return joined(
        "a thread is waiting" if waiting == 1 else "%d threads are waiting" % waiting if waiting else "",
        "a thread is closing it" if closing else "",
    )


def describe_server_socket(value, kind="TCP server", opened="listening"):
    place = "%s:%d" % (name_field(value, "m_sBindAddress"), int(value["m_nPort"]) & 0xFFFF)
    number = descriptor(value["m_pSocketImpl"])
    state = "closed" if number is None else "%s, descriptor %d" % (opened, number)
    return joined("%s on %s" % (kind, place), state, concerned_threads(int(value.address)))


def describe_tcp_server(value):
    return joined(describe_server_socket(value), "backlog %d" % int(value["m_nBacklog"]), references(value))


def describe_udp_server(value):
    size = counted(int(value["m_nBufferSize"]), "byte")
    return joined(
        describe_server_socket(value, "UDP server", "bound"), "datagrams up to " + size, references(value)
    )


def describe_ssl_server(value):
    certificate = describe_certificate(value["m_certificate"])
    return joined(describe_server_socket(value, "SSL server"), certificate, references(value))


def pipe_record(handle):
    """A pipe server's descriptor, and whether a thread waits."""
    address = int(handle)
    return descriptor(address), read_number(address + 12, 1) == 1


def describe_pipe_server(value):
    state = "closed"
    if int(value["m_pipeHandle"]) != 0:
        number, is_waiting = pipe_record(value["m_pipeHandle"])
        state = joined("listening, descriptor %d" % number, "a thread is waiting" if is_waiting else "")
    privileges = int(value["m_iAccessPrivileges"])
    group = name_field(value, "m_sUserGroupName")
    return joined(
        "pipe server " + name_field(value, "m_sPipeName"),
        state,
        "access privileges %d" % privileges if privileges != 7 else "",
        "group " + group if group != '""' else "",
        references(value),
    )


def describe_ipc_server(value):
    return joined("server" + other_class(value), references(value))


# Notifications.


def event_state(value):
    try:
        return "event set" if value["m_pState"]["isSet"] else "event not set"
    except gdb.MemoryError:
        raise
    except gdb.error:
        return ""


def describe_event(value):
    return event_state(value) or "event"


def describe_callback(value):
    return joined("callback %d" % int(value["m_nId"]), event_state(value), references(value))


def describe_proxy(value):
    return joined("proxy of " + describe_identifier(value), references(value))


def describe_identifier(value):
    return "%s, handle %d" % (name_field(value, "m_sRemoteName"), int(value["m_hDependent"]))


def describe_notification(value):
    return "notification %d" % int(value["m_nId"])


def describe_sink(value):
    address = name_field(value, "m_sCallbackName")
    start = "callback sink" + ("" if address == '""' else " " + address)
    return joined(start, "" if value["m_bThreadStarted"] else "its server is not made yet", references(value))


# Deliveries and subscriptions. Each object has one pointer, to what its source file alone describes.


def state_of(value, name):
    address = read_number(int(value.address), 8)
    if address == 0:
        raise Unreadable("there is no state: destroyed, or left to a child process")
    try:
        type_ = gdb.lookup_type(name)
    except gdb.error as error:
        raise Unreadable(NO_SYMBOLS) from error
    return gdb.Value(address).cast(type_.pointer()).dereference()


def held(optional):
    """What a std::optional holds."""
    payload = optional["_M_payload"]
    if not payload["_M_engaged"]:
        raise Unreadable("not opened yet")
    return payload["_M_payload"]["_M_value"]


def enumerator(value):
    return str(value).split("::")[-1]


def describe_dispatcher(value):
    state = state_of(value, "VornNet::VornDispatcher::State")
    sums = state["m_book"]["statistics"]
    return joined(
        "dispatcher: " + counted(int(sums["nQueued"]), "notification") + " queued for "
        + counted(int(sums["nAddresses"]), "address", "addresses"),
        "%d posted" % int(sums["nPosted"]),
        "%d delivered" % int(sums["nDelivered"]),
        "stopped" if state["m_bStopped"] else "",
    )


def describe_steady_sink(value):
    state = state_of(value, "VornNet::VornSteadySink::State")
    sums = state["m_line"]["m_statistics"]
    calling = "a callback runs" if state["m_line"]["m_isCalling"] else ""
    address = name_field(state["m_address"], "m_sAddress")
    return joined("steady sink " + address, "%d delivered" % int(sums["nDelivered"]), calling)


def steady_sink_parts(value):
    state = state_of(value, "VornNet::VornSteadySink::State")
    yield "m_container", state["m_container"]


def publisher_engine(value):
    return held(state_of(value, "VornNet::VornPublisher::State")["m_engine"])


def describe_publisher(value):
    state = state_of(value, "VornNet::VornPublisher::State")
    engine = held(state["m_engine"])
    return joined(
        "publisher at " + name_field(state, "m_sAddress"),
        counted(entry_count(engine["m_book"]["m_subscribers"]), "subscriber"),
        "%d sent" % int(engine["m_book"]["m_statistics"]["nSent"]),
    )


def publisher_entries(value):
    for key, client in map_entries(publisher_engine(value)["m_book"]["m_subscribers"]):
        who = client.dereference()["who"]
        topic, sender = name_field(who, "sTopic"), narrow_text(who["sFrom"])[1:-1]
        yield "[%d]" % int(key), "%s to %s, sent up to %d" % (topic, sender, int(who["position"]["nNumber"]))


def describe_subscriber(value):
    work = state_of(value, "VornNet::SubscriberWork")
    status = work["m_record"]["m_status"]
    reason = name_field(status, "sReason")
    return joined(
        "subscriber of " + name_field(work, "m_sTopic"),
        enumerator(status["state"]),
        "" if reason == '""' else narrow_text(status["sReason"])[1:-1],
        "%d events" % int(work["m_record"]["m_statistics"]["nEvents"]),
        describe_position(work["m_record"]["m_last"]),
    )


def describe_position(value):
    history, number = int(value["nHistory"]), int(value["nNumber"])
    return "after event %d of history %016x" % (number, history) if history else "nowhere"


# Everything else.


def describe_certificate(value):
    return "certificate %s, key %s" % (name_field(value, "m_sFile"), name_field(value, "m_sKeyFile"))


def deque_elements(deque, limit):
    """The elements of a std::deque, up to @p limit of them."""
    start, finish = deque["_M_impl"]["_M_start"], deque["_M_impl"]["_M_finish"]
    node, element, last = start["_M_node"], start["_M_cur"], start["_M_last"]
    end = int(finish["_M_cur"])
    for _ in range(limit):
        if int(element) == end:
            return
        yield element.dereference()
        element += 1
        if int(element) == int(last):
            node += 1
            element = node.dereference()
            # All blocks of a deque are of one size.
            last = element + (int(start["_M_last"]) - int(start["_M_first"])) // element.type.target().sizeof


def describe_exception(value):
    code = int(value["m_nCode"])
    name = errno.errorcode.get(code)
    start = "%s %d" % (class_name(value.type).split("::")[-1], code) + (" (%s)" % name if name else "")
    try:
        messages = [wide_text(text) for text in deque_elements(value["m_messages"], shown_elements())]
    except gdb.MemoryError:
        messages = ["<unreadable>"]
    return start + ": " + "; ".join([wide_text(value["m_sText"])] + messages)


def thread_label(number):
    for thread in gdb.selected_inferior().threads():
        if thread.ptid[1] == number:
            return "thread %d" % thread.num
    return "thread with the system's number %d" % number


def describe_lock(value):
    mutex = int(value["m_pCriticalSection"])
    if mutex == 0:
        raise Unreadable("there is no mutex")
    try:
        data = gdb.Value(mutex).cast(gdb.lookup_type("std::recursive_mutex").pointer())["_M_mutex"]["__data"]
        owner, times = int(data["__owner"]), int(data["__count"])
    except gdb.MemoryError as error:
        raise Unreadable("cannot read memory at 0x%x" % mutex) from error
    except gdb.error:
        return "lock"
    if owner == 0:
        return "lock free"
    return "lock held by %s%s" % (thread_label(owner), "" if times == 1 else " (%d times over)" % times)


def describe_thread(value):
    try:
        state = value["m_spState"]["_M_ptr"].dereference()
        name = "thread " + narrow_text(state["name"])
        running = "running" if state["running"] else "not running"
        return joined(name, running, "asked to stop" if state["stopRequested"] else "", references(value))
    except gdb.MemoryError:
        raise
    except gdb.error:
        return joined("thread", references(value))


def describe_logger(_value):
    return logger_state()


def describe_object(value):
    return joined("object" + other_class(value), references(value))


def is_smart_pointer(name):
    return name.startswith("VornSupport::VornSmartPointer<")


def describe_smart_pointer(value):
    target = value["m_pObject"]
    if int(target) == 0:
        return "empty smart pointer"
    return "smart pointer to " + described(target.dereference())


# Registries.


def map_nodes(tree, limit):
    """The addresses of a std::map's nodes in order, up to @p limit of them. A tree that has been overwritten
    may lead anywhere, also round in a circle."""
    seen = set()
    path = []
    node = int(tree["_M_header"]["_M_parent"])
    while (node or path) and len(seen) < limit:
        while node:
            if node in seen or node in path:
                raise Unreadable("the tree of entries leads back to 0x%x" % node)
            path.append(node)
            node = read_number(node + 16, 8)
        last = path.pop()
        seen.add(last)
        yield last
        node = read_number(last + 24, 8)


def map_entries(container):
    """The keys and values of a std::map."""
    tree = container["_M_t"]["_M_impl"]
    type_ = container.type.strip_typedefs()
    key, mapped = type_.template_argument(0), type_.template_argument(1)
    # A node is its header, then the pair.
    head = tree["_M_header"].type.sizeof
    for node in map_nodes(tree, shown_elements()):
        place = node + head
        yield (
            gdb.Value(place).cast(key.pointer()).dereference(),
            gdb.Value(place + (key.sizeof + 7) // 8 * 8).cast(mapped.pointer()).dereference(),
        )


def entry_count(container):
    return int(container["_M_t"]["_M_impl"]["_M_node_count"])


def describe_callbacks(value):
    count = counted(entry_count(value["m_callbackMap"]), "callback")
    next_id = "next id %d" % int(value["m_nIdCounter"])
    return joined("callback registry: " + count, next_id, described(value["m_lock"]))


def describe_proxies(value):
    count = counted(entry_count(value["m_proxyDependentMap"]), "proxy", "proxies")
    return joined("proxy registry: " + count, described(value["m_lock"]))


def callback_entries(value):
    for key, entry in map_entries(value["m_callbackMap"]):
        yield "[%d]" % int(key), entry


def proxy_entries(value):
    for key, entry in map_entries(value["m_proxyDependentMap"]):
        yield "[%s]" % describe_identifier(key), entry


def sink_parts(value):
    for field in ("m_spCallbackServer", "m_callbackContainer"):
        yield field, value[field]


# From a class to what is shown of it. Of a derived class that is not here the nearest base counts.
DESCRIBERS = {
    "VornNet::VornBufferConnection": describe_buffer,
    "VornNet::VornCallbackContainer": describe_callbacks,
    "VornNet::VornCertificate": describe_certificate,
    "VornNet::VornConnection": describe_connection,
    "VornNet::VornDispatcher": describe_dispatcher,
    "VornNet::VornIPCServer": describe_ipc_server,
    "VornNet::VornLibraryCallbackSink": describe_sink,
    "VornNet::VornNotificationCallback": describe_callback,
    "VornNet::VornPipeConnection": describe_pipe,
    "VornNet::VornPipeServer": describe_pipe_server,
    "VornNet::VornPosition": describe_position,
    "VornNet::VornProxyDependent": describe_proxy,
    "VornNet::VornProxyDependentContainer": describe_proxies,
    "VornNet::VornPublisher": describe_publisher,
    "VornProxyDependentIdentifier": describe_identifier,
    "VornNet::VornSSLServerSocket": describe_ssl_server,
    "VornNet::VornSSLSocketConnection": describe_ssl_socket,
    "VornNet::VornServerSocket": describe_tcp_server,
    "VornNet::VornSocketConnection": describe_socket,
    "VornNet::VornSteadySink": describe_steady_sink,
    "VornNet::VornSubscriber": describe_subscriber,
    "VornNet::VornUDPServerSocket": describe_udp_server,
    "VornNet::VornUDPSocketConnection": describe_udp,
    "VornNet::VornUnableToResolveAddressException": describe_exception,
    "VornNet::VornUnableToResolveNameException": describe_exception,
    "VornSupport::VornCriticalSectionObject": describe_lock,
    "VornSupport::VornEvent": describe_event,
    "VornSupport::VornException": describe_exception,
    "VornSupport::VornLogging": describe_logger,
    "VornSupport::VornNotification": describe_notification,
    "VornSupport::VornObjectBase": describe_object,
    "VornSupport::VornThread": describe_thread,
}

# What is shown below the line that describes an object.
PARTS = {
    "VornNet::VornCallbackContainer": callback_entries,
    "VornNet::VornLibraryCallbackSink": sink_parts,
    "VornNet::VornProxyDependentContainer": proxy_entries,
    "VornNet::VornPublisher": publisher_entries,
    "VornNet::VornSteadySink": steady_sink_parts,
}

TEXTS = {"VornSupport::VornString": narrow_text, "VornSupport::VornUString": wide_text}


class Printer:
    """Shows a value as the text that a function makes of it."""

    def __init__(self, value, text_of):
        self.value = value
        self.text_of = text_of

    def to_string(self):
        try:
            return self.text_of(self.value)
        except Exception as problem:  # pylint: disable=broad-except
            return "<%s>" % str(problem).rstrip(".")


class PartsPrinter(Printer):
    """Shows an object that has entries or parts worth a line of their own."""

    def children(self):
        if self.to_string().startswith("<"):
            return
        try:
            yield from PARTS[class_name(self.value.type)](self.value)
        except Exception as problem:  # pylint: disable=broad-except
            yield "[...]", "<%s>" % str(problem).rstrip(".")


class Printers(gdb.printing.PrettyPrinter):
    """Finds the printer of a value."""

    def __init__(self):
        super().__init__("vornnet")

    def __call__(self, value):
        type_ = value.type
        if type_.code == gdb.TYPE_CODE_REF:
            value = value.referenced_value()
            type_ = value.type
        # The text types are shown so where a variable is declared with them.
        text_of = TEXTS.get(type_.unqualified().name)
        name = class_name(type_)
        if text_of is not None:
            return Printer(value, text_of)
        if name in PARTS:
            return PartsPrinter(value, described)
        return Printer(value, described) if name in DESCRIBERS or is_smart_pointer(name) else None


# `*p` and `p->` of a smart pointer, without a process that could run its operators.


class SmartPointerOperator(gdb.xmethod.XMethodWorker):
    def __init__(self, target, is_arrow):
        self.target = target
        self.is_arrow = is_arrow

    def get_arg_types(self):
        return None

    def get_result_type(self, _pointer):
        return self.target.pointer() if self.is_arrow else self.target

    def __call__(self, pointer):
        return pointer["m_pObject"] if self.is_arrow else pointer["m_pObject"].dereference()


class SmartPointerOperators(gdb.xmethod.XMethodMatcher):
    def __init__(self):
        super().__init__("vornnet")

    def match(self, class_type, method_name):
        if not is_smart_pointer(class_name(class_type)) or method_name not in ("operator*", "operator->"):
            return None
        target = class_type.strip_typedefs().template_argument(0)
        return SmartPointerOperator(target, method_name == "operator->")


def register():
    # The library's object file while gdb loads this for it, so that both go together.
    place = gdb.current_objfile()
    gdb.printing.register_pretty_printer(place, Printers(), replace=True)
    gdb.xmethod.register_xmethod_matcher(place, SmartPointerOperators(), replace=True)
    Commands()
    LogLevel()


register()
