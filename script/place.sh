# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash

# For script/demo, script/test and tests of recipes: where they run. In private namespaces they disturb nobody. Where none
# can be created, as in most containers, they run in place.

pipe_directory=/opt/vorn/hostmgr/var/lib/kestrel/rendez
# Names the topmost directory that was created for a run. A run that was killed leaves it to the next one.
created_mark=${pipe_directory%/*}/.created-for-a-run

# Prints the options of unshare(1) that lead into namespaces where something can be mounted; fails if there are none.
namespace_options() {
    local options
    for options in '--mount --net' '--user --map-root-user --mount --net'; do
        # shellcheck disable=SC2086 # several options
        if unshare $options mount -t tmpfs none /opt 2>/dev/null; then
            echo "$options"
            return
        fi
    done
    return 1
}

was_created_for_a_run() { [[ -f $created_mark ]]; }

create_pipe_directory() {
    local top=$pipe_directory
    if was_created_for_a_run; then
        mkdir -p -- "$pipe_directory"
        return
    fi
    while [[ ! -e ${top%/*} ]]; do
        top=${top%/*}
    done
    mkdir -p -- "$pipe_directory" && printf '%s\n' "$top" >"$created_mark"
}

remove_pipe_directory() {
    local top
    top=$(<"$created_mark")
    rm -rf -- "$top"
    # Still there if only the last directory was missing.
    rm -f -- "$created_mark"
}
