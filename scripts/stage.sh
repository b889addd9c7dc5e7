# SPDX-License-Identifier: GPL-3.0-only
# Shell functions that start and stop the processes of a demo or test in a folder of their own.
#
# The folder holds: run/ sockets and process records, log/NAME.log, state/ the service's files, prefs/, host/,
# server/ the XMPP server, env the shell assignments for scripts.

stage_fail() {
    echo "$*" >&2
    return 1
}

# Waits until the command succeeds: stage_wait SECONDS WHAT COMMAND...
stage_wait() {
    local deadline=$((SECONDS + $1)) what=$2
    shift 2
    until "$@" 2>/dev/null; do
        ((SECONDS < deadline)) || stage_fail "Timed out: $what" || return 1
        sleep 0.05
    done
}

stage_start_time() { # of a process, in clock ticks since boot: tells a reused process id
    sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f20
}

# stage_start DIR NAME COMMAND...: runs the command in the background, its output in log/NAME.log.
stage_start() {
    local dir=$1 name=$2 pid
    shift 2
    setsid "$@" >>"$dir/log/$name.log" 2>&1 </dev/null &
    pid=$!
    disown "$pid" 2>/dev/null || true
    echo "$pid $(stage_start_time "$pid")" >"$dir/run/$name.pid"
}

stage_pid() { # DIR NAME
    local pid start
    read -r pid start 2>/dev/null <"$1/run/$2.pid" || return 1
    [[ -n $start && $start == "$(stage_start_time "$pid")" ]] && echo "$pid"
}

stage_gone() { [[ ! -e /proc/$1 ]] || grep -q '^State:.*Z' "/proc/$1/status" 2>/dev/null; }

# stage_stop DIR NAME: asks the process to end, insists after five seconds.
stage_stop() {
    local pid
    if pid=$(stage_pid "$1" "$2"); then
        kill "$pid" 2>/dev/null || true
        stage_wait 5 "$2 to end" stage_gone "$pid" 2>/dev/null || kill -KILL "$pid" 2>/dev/null || true
    fi
    rm -f "$1/run/$2.pid"
}

# A D-Bus daemon of this folder: stage_bus DIR private|public
stage_bus() {
    local dir=$1 bus=$2 sockets=$1/run extra=
    # A socket's path holds at most 107 bytes; a deeper folder gets its sockets in the temporary folder.
    if ((${#sockets} > 90)); then
        sockets=$(mktemp -d "${TMPDIR:-/tmp}/pubsub-XXXXXX")
        echo "$sockets" >>"$dir/run/short-folders"
    fi
    [[ $bus == private ]] && extra="<servicedir>$dir/run/dbus-services</servicedir>"
    sed -e "s#@DIR@#$sockets#g" -e "s#@BUS@#$bus#g" -e "s#@EXTRA@#$extra#g" \
        "$STAGE_ROOT/packaging/dbus/zelt-dev.conf.in" >"$dir/run/$bus.conf"
    rm -f "$sockets/${bus}_bus"
    stage_start "$dir" "$bus-bus" dbus-daemon --config-file="$dir/run/$bus.conf" --nofork --nopidfile --nosyslog
    stage_wait 10 "the $bus bus to listen" test -S "$sockets/${bus}_bus" || return 1
    echo "unix:path=$sockets/${bus}_bus" >"$dir/run/$bus.address"
}

stage_processes=(service host public-bus private-bus)

stage_down() {
    local dir=$1 name short
    for name in "${stage_processes[@]}"; do
        stage_stop "$dir" "$name"
    done
    [[ -e $dir/server/server.env ]] && "$STAGE_ROOT/ejabberd/run" down "$dir/server" >/dev/null 2>&1
    if [[ -e $dir/run/short-folders ]]; then
        while read -r short; do rm -rf "$short"; done <"$dir/run/short-folders"
        rm -f "$dir/run/short-folders"
    fi
    return 0
}

# The environment that the processes of DIR share.
stage_environment() {
    local dir=$1
    export ZELT_PRIVATE_BUS ZELT_PUBLIC_BUS
    ZELT_PRIVATE_BUS=$(cat "$dir/run/private.address")
    ZELT_PUBLIC_BUS=$(cat "$dir/run/public.address")
    export ZELT_PREFS_DIR=$dir/prefs PUBSUB_STATE_DIR=$dir/state PUBSUB_CA_FILE=$dir/server/tls/ca.crt
    export ZELT_HOST_STATE_DIR=$dir/host ZELT_HOST_CONF=$dir/host/host.conf ZELT_MACHINE_ID_FILE=$dir/machine-id
}

# Lets the private bus start the host daemon whenever one of its services is called and it is not there.
stage_activation() {
    local dir=$1 name
    stage_environment "$dir"
    {
        echo '#!/bin/bash'
        export -p | grep -E ' (ZELT|PUBSUB)_[A-Z_]+='
        printf 'source %q\n' "$STAGE_ROOT/scripts/stage.sh"
        printf 'echo "$$ $(stage_start_time $$)" >%q\n' "$dir/run/host.pid"
        printf 'exec %q >>%q 2>&1\n' "$STAGE_BIN/zelt-host" "$dir/log/host.log"
    } >"$dir/run/start-host"
    chmod 755 "$dir/run/start-host"
    for name in "$STAGE_ROOT"/packaging/dbus-services/*.service.in; do
        sed -e "s#^Exec=.*#Exec=$dir/run/start-host#" -e '/^User=/d' -e '/^SystemdService=/d' "$name" \
            >"$dir/run/dbus-services/$(basename "$name" .in)"
    done
}

stage_connected() {
    "$STAGE_BIN/pubsubctl" --json --timeout 5 status | grep -q '"connected": *true'
}

stage_start_host() {
    stage_environment "$1"
    stage_start "$1" host "$1/run/start-host"
}

stage_start_service() {
    stage_environment "$1"
    stage_start "$1" service env "${STAGE_SERVICE_ENV[@]}" "$STAGE_BIN/pubsubservice"
}

# stage_ground DIR [OPTION...]: the folders, both buses and the XMPP server, which gets the options, and opens the
# names under STAGE_OPEN_PREFIXES ("[\"/a\", ...]") to all accounts. Nobody is
# on the buses yet, and the private bus starts nobody.
stage_ground() {
    local dir=$1
    shift
    mkdir -p "$dir"/{run,log,state,prefs,host,applications,run/dbus-services}
    chmod 700 "$dir/prefs" "$dir/host"
    $STAGE_SAY "Starting the private and the public bus"
    stage_bus "$dir" private && stage_bus "$dir" public || return 1

    $STAGE_SAY "Starting the XMPP server (ejabberd with the device extension)"
    "$STAGE_ROOT/ejabberd/run" up "$dir/server" \
        ${STAGE_OPEN_PREFIXES:+--option "open_prefixes=$STAGE_OPEN_PREFIXES"} "$@" >"$dir/log/server-start.log" 2>&1 ||
        { tail -n 20 "$dir/log/server-start.log" >&2; stage_fail "The XMPP server did not start."; return 1; }
    ln -sf ../server/log/server.log "$dir/log/server.log"
    od -An -N16 -tx1 /dev/urandom | tr -d ' \n' >"$dir/machine-id"
}

# stage_up DIR: everything, in order; returns when the service is connected. STAGE_SAY is called with each step.
stage_up() {
    local dir=$1
    stage_ground "$dir" || return 1
    # shellcheck disable=SC1091
    source "$dir/server/server.env"
    local user=device password
    password=$(od -An -N12 -tx1 /dev/urandom | tr -d ' \n')
    "$STAGE_ROOT/ejabberd/run" account "$dir/server" "$user" "$password" >>"$dir/log/server-start.log" 2>&1 ||
        { stage_fail "The account could not be registered; see $dir/log/server-start.log."; return 1; }

    if [[ ${STAGE_LOGIN:-account} == file ]]; then
        # JID, password, host, port, pub-sub service, resource: one a line.
        (umask 077 && printf '%s\n' "$user@$XMPP_DOMAIN" "$password" "$XMPP_HOST" "$XMPP_PORT" "$PUBSUB_JID" dev1 \
            >"$dir/state/pubsub.conf")
    fi
    printf '[network]\nloopback-is-internet=true\n[applications]\nfolder=%s\n' "$dir/applications" \
        >"$dir/host/host.conf"
    stage_activation "$dir"
    if [[ ${STAGE_LOGIN:-account} == account ]]; then
        "$STAGE_BIN/zelt-host" account set --user "$user" --service "$XMPP_DOMAIN" --url "$XMPP_HOST" \
            --port "$XMPP_PORT" <<<"$password" >>"$dir/log/host.log" 2>&1 ||
            { stage_fail "The device's account could not be stored; see $dir/log/host.log."; return 1; }
    fi

    $STAGE_SAY "Starting the Linux host services"
    stage_start_host "$dir"
    $STAGE_SAY "Starting pubsubservice"
    stage_start_service "$dir"
    stage_wait "${STAGE_DEADLINE:-60}" "pubsubservice to connect (logs: $dir/log)" stage_connected || return 1

    {
        local name
        DEVICE_USER=$user STATE_DIR=$dir/state
        DEVICE_RESOURCE=$("$STAGE_BIN/pubsubctl" --json call getResource | sed 's/.*"resource": *"\([^"]*\)".*/\1/')
        SERVICE_PID=$(stage_pid "$dir" service) HOST_PID=$(stage_pid "$dir" host)
        for name in ZELT_PRIVATE_BUS ZELT_PUBLIC_BUS ZELT_PREFS_DIR STATE_DIR XMPP_HOST XMPP_PORT XMPP_DOMAIN \
            PUBSUB_JID DEVICE_USER DEVICE_RESOURCE HTTP_URL API_URL CA_FILE SERVICE_PID SERVER_PID HOST_PID; do
            printf '%s=%q\n' "$name" "${!name}"
        done
    } >"$dir/env"
}
