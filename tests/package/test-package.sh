#!/usr/bin/env bash
# make test-package: checks the package's fields, conffiles, scripts, contents
# and lintian; then, as root, its whole life in a throw-away overlay of this
# machine (own mount, pid and network namespaces, empty /run, private /tmp):
# install, the services as their users, the README's commands, a crash, an
# upgrade from a version without kiv-directory, remove and purge.
# Usage: test-package.sh PACKAGE.deb       (the inner part: --inside PACKAGE.deb)
set -euo pipefail

fail() { echo "test-package: FAIL: $*" >&2; exit 1; }
note() { echo "test-package: $*"; }
# mode_is PATH MODE OWNER:GROUP
mode_is() {
    local got; got=$(stat -c '%a %U:%G' "$1") || fail "$1 is missing"; [ "$got" = "$2 $3" ] || fail "$1 is $got, want $2 $3"
}
# wait_for SECONDS COMMAND...: polls the command every 0.1 s.
wait_for() {
    local i; for ((i = 0; i < $1 * 10; i++)); do "${@:2}" >/dev/null 2>&1 && return 0; sleep 0.1; done; return 1
}

# ---- 1. the package file -------------------------------------------------
check_package() {
    local deb=$1 f name arch version depends
    [ -f "$deb" ] || fail "no package $deb"
    name=$(dpkg-deb -f "$deb" Package) version=$(dpkg-deb -f "$deb" Version) arch=$(dpkg-deb -f "$deb" Architecture)
    depends=$(dpkg-deb -f "$deb" Depends)
    [ "$name" = kivfoundry ] || fail "Package is '$name'"
    [ "$arch" = "$(dpkg --print-architecture)" ] || fail "Architecture is '$arch'"
    [ "$(basename "$deb")" = "kivfoundry_${version}_${arch}.deb" ] || fail "file name $(basename "$deb")"
    for d in nats-server adduser debconf libc6 'libnats3\.4' libssl3 libminizip1 'libboost-filesystem' libsystemd0; do
        grep -Eq "(^|, )$d" <<<"$depends" || fail "Depends lacks $d (from dpkg-shlibdeps or the package): $depends"; done
    local control; control=$(mktemp -d)
    trap 'rm -rf "$control"' RETURN
    dpkg-deb -e "$deb" "$control" && dpkg-deb -x "$deb" "$control/x"
    [ "$(cat "$control/conffiles")" = /etc/kivfoundry/cab-directory.conf ] || fail "conffiles: $(cat "$control/conffiles")"
    [ -s "$control/templates" ] || fail "no debconf templates"
    for f in config postinst prerm postrm; do
        [ -x "$control/$f" ] || fail "no executable $f"; sh -n "$control/$f" || fail "$f is not valid sh"; done

    # Every path with its mode and owner, as dpkg-deb lists them.
    local listing; listing=$(dpkg-deb -c "$deb" | awk '{ sub(/^\./, "", $6); print $1, $2, $6 }')
    local x=-rwxr-xr-x r=-rw-r--r--
    for f in $x:/usr/lib/kivfoundry/{KivRequestProxy,KivCrashReporter,kiv-start-backoff} $x:/usr/bin/kivctl \
        $x:/usr/share/kivfoundry/scripts/{install-identities,cab-directory-users} $r:/etc/kivfoundry/cab-directory.conf \
        $r:/lib/systemd/system/kiv-{cab-directory,request-proxy}.service $r:/usr/share/man/man1/kivctl.1.gz \
        $r:/usr/share/doc/kivfoundry/{README.md,copyright,changelog.gz,docs/protocol.md}; do
        grep -qxF -e "${f%%:*} root/root ${f#*:}" <<<"$listing" || fail "the package lacks ${f%%:*} ${f#*:}"
    done
    # Nothing that only the tests or make run use, nothing owned by a builder.
    if grep -E 'cab-echo|kiv-media-catalog|/opt/|/usr/local/|_test$' <<<"$listing"; then fail "unexpected files"; fi
    if awk '$2 != "root/root"' <<<"$listing" | grep .; then fail "files not owned by root"; fi
    for f in usr/lib/kivfoundry/KivRequestProxy usr/lib/kivfoundry/KivCrashReporter usr/bin/kivctl; do
        readelf -S "$control/x/$f" | grep -q '\.symtab' && fail "$f is not stripped"; done
    zcat "$control/x/usr/share/man/man1/kivctl.1.gz" | grep -q '^\.SS defaults$' || fail "man page lacks the commands"
    command -v lintian >/dev/null || { note "SKIPPED lintian: not installed (scripts/install-deps installs it)"; return 0; }
    local out; out=$(lintian --fail-on error,warning "$deb" 2>&1) || fail "lintian: $out"
    note "lintian: no error, no warning"
}

# ---- 2. inside the throw-away root ---------------------------------------
users_conf=/etc/kivfoundry/cab-directory-users.conf wants=/etc/systemd/system/multi-user.target.wants
config='Software\Kiv Foundry\Kiv\Config'
# A command as the kiv user with its HOME, as the units run it: setpriv and
# env exec it, so the pid of `as_kiv ... &` (an array, not a function, which
# would fork a subshell) is the program's own.
as_kiv=(setpriv --reuid=kiv --regid=kiv --init-groups env -u XDG_CONFIG_HOME -u KIV_ROOT)
as_directory=(setpriv --reuid=kiv-directory --regid=kiv-directory --init-groups)
# The served folders preseeded before the first install: a relative one is dropped, a missing one kept.
served_answer='/srv/kiv media:relative/folder:/srv/missing'
served_setting='/srv/kiv media:/srv/missing'

setting() { "${as_kiv[@]}" HOME="$kiv_home" /usr/bin/kivctl defaults read "$config" "$1"; }

check_installed() {
    [ "$(dpkg-query -W -f='${Status}' kivfoundry)" = "install ok installed" ] || fail "kivfoundry is not installed"
    local pw u
    for u in kiv kiv-directory; do
        pw=$(getent passwd $u) || fail "no user $u"
        [ "$(cut -d: -f3 <<<"$pw")" -lt 1000 ] && [ "$(cut -d: -f7 <<<"$pw")" = /usr/sbin/nologin ] ||
            fail "$u is not a system user without a shell: $pw"
    done
    kiv_home=$(getent passwd kiv | cut -d: -f6)
    [ "$kiv_home" = /var/lib/kivfoundry ] || fail "kiv's home is $kiv_home"
    mode_is "$kiv_home" 700 kiv:kiv
    mode_is "$users_conf" 640 root:kiv-directory
    if "${as_kiv[@]}" cat "$users_conf" >/dev/null 2>&1; then fail "the proxy's user kiv can read $users_conf"; fi
    "${as_directory[@]}" cat "$users_conf" >/dev/null || fail "kiv-directory cannot read $users_conf"
    local f; for f in /etc/kivfoundry/kivctl.password /etc/kivfoundry/admin.password; do mode_is $f 600 root:root; done
    mode_is /etc/kivfoundry/cab-directory.conf 644 root:root
    for f in /Library/Logs/KivFoundry /Library/KivFoundry; do mode_is $f 750 kiv:kiv; done
    for f in "$kiv_home"/.config/kivfoundry/*.json; do mode_is "$f" 600 kiv:kiv; done
    grep -q 'user: "VorpaMediaProxy"' "$users_conf" || fail "no VorpaMediaProxy user in $users_conf"
    grep -q CHANGE-ME "$users_conf" && fail "placeholder passwords in $users_conf"
    [ "$(setting cabDirectory.user)" = VorpaMediaProxy ] || fail "the proxy's cabDirectory.user is not VorpaMediaProxy"
    [ "$(setting cabDirectory.password)" = "$(grep -o 'user: "VorpaMediaProxy", password: "[^"]*"' "$users_conf" | cut -d'"' -f4)" ] ||
        fail "the proxy's password is not the directory's"
    [ "$(setting cabDirectory.host)" = 127.0.0.1 ] || fail "cabDirectory.host is $(setting cabDirectory.host)"
    for u in kiv-cab-directory kiv-request-proxy; do [ -L "$wants/$u.service" ] || fail "$u is not enabled"; done
}

# The file system the proxy unit's hardening leaves: all read-only
# (ProtectSystem=strict, ProtectHome=read-only) but the unit's ReadWritePaths
# and, with PrivateTmp, /tmp and /var/tmp.
hardened_view() {
    local unit=/lib/systemd/system/kiv-request-proxy.service view=/run/kiv-hardened p
    local rw; rw=$(sed -n 's/^ReadWritePaths=//p' "$unit")
    grep -qx 'PrivateTmp=yes' "$unit" && rw+=" /var/tmp"
    mkdir -p "$view" && mount --rbind / "$view" && mount -o remount,bind,ro "$view" || fail "no read-only view of /"
    for p in $rw; do mount --bind "$view$p" "$view$p" && mount -o remount,bind,rw "$view$p"; done
    echo "$view"
}

# The directory and the proxy as the units start them (user kiv, its HOME,
# the unit's ExecStart), in the hardened view; kivctl asks with the installed
# "kivctl" credential; SIGUSR1 makes the proxy crash: it must exit 0 and its
# crash reporter, beside it, must file a report in the data folder.
run_services() {
    local port=$1 nats proxy status=0 view
    ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null ||
        { note "SKIPPED the services run: port $port is taken (no network namespace of our own)"; return 0; }
    view=$(hardened_view)
    chroot "$view" "${as_directory[@]}" /usr/sbin/nats-server -c /etc/kivfoundry/cab-directory.conf \
        >/tmp/directory.log 2>&1 &
    nats=$!
    # The proxy starts once the directory listens (its unit's ExecStartPost).
    wait_for 20 bash -c "exec 3<>/dev/tcp/127.0.0.1/$port" || { cat /tmp/directory.log >&2; fail "the directory does not listen"; }
    chroot "$view" "${as_kiv[@]}" HOME="$kiv_home" /usr/lib/kivfoundry/KivRequestProxy >/tmp/proxy.log 2>&1 &
    proxy=$!
    local version=(/usr/bin/kivctl version --server "127.0.0.1:$port" --user kivctl --timeout 2000)
    ask() { "${version[@]}" --password-file /etc/kivfoundry/kivctl.password; }
    if ! wait_for 60 ask; then
        kill "$proxy" "$nats" 2>/dev/null || true
        cat /tmp/directory.log /tmp/proxy.log >&2
        fail "kivctl version got no answer from the installed proxy on port $port"
    fi
    ask | head -n 3
    # At the default LogLevel the log file keeps no INFO line; the service's
    # standard error (the journal) still says where it connected.
    grep -q "Connected to the directory at nats://127.0.0.1:$port as VorpaMediaProxy" /tmp/proxy.log ||
        { cat /tmp/proxy.log >&2; fail "the proxy's standard error does not say where it connected"; }
    readme_commands "$port"
    # Another user's password is refused.
    printf 'not-the-password-0123456789\n' >/tmp/wrong.password
    ! "${version[@]}" --password-file /tmp/wrong.password >/dev/null 2>&1 || fail "a wrong password was accepted"
    kill -USR1 "$proxy"
    wait "$proxy" || status=$?
    [ "$status" = 0 ] || fail "the crashed proxy exited with $status (the unit relies on Restart=always)"
    local reports=/Library/KivFoundry/CrashReports
    wait_for 30 sh -c "ls $reports/*.json" || { cat /tmp/proxy.log >&2; fail "no crash report in $reports"; }
    mode_is "$reports" 750 kiv:kiv
    local f; for f in /Library/Logs/KivFoundry/*; do mode_is "$f" 640 kiv:kiv; done
    [ -e /Library/Logs/KivFoundry/errors.log ] || fail "the crash left no line in errors.log"
    kill -TERM "$nats"; wait "$nats" || true
    umount -R "$view"
    note "services: answered on 127.0.0.1:$port, a crash exited 0 and was filed in $reports"
}

# The unit's start back-off, as kiv in a runtime folder of its own: short
# runs in a row are counted and make the start wait (capped), a long run
# clears the count.
check_backoff() {
    local dir out; dir=$(mktemp -d) && chown kiv:kiv "$dir"
    backoff() { "${as_kiv[@]}" RUNTIME_DIRECTORY="$dir" KIV_MAX_WAIT=1 /usr/lib/kivfoundry/kiv-start-backoff "$1" 2>&1; }
    out=$(backoff start; backoff stopped; backoff start; backoff stopped; backoff start)
    [ "$(cat "$dir/short-runs")" = 2 ] || fail "kiv-start-backoff counted $(cat "$dir/short-runs") short runs, want 2"
    grep -qx 'kiv-start-backoff: 2 short runs in a row; starting in 1 s' <<<"$out" || fail "kiv-start-backoff: $out"
    echo 0 >"$dir/started" && backoff stopped >/dev/null
    [ "$(cat "$dir/short-runs")" = 0 ] || fail "a long run did not clear the count of short runs"
    rm -rf "$dir"
    note "kiv-start-backoff: short runs counted and waited for, a long run clears them"
}

# The README's commands for a kivctl credential ("A credential for kivctl"),
# as root, as written (the port is the installed one); then an unreadable
# password file must not store an empty password.
readme_commands() {
    local port=$1 commands
    commands=$(sed -n '/^### A credential for kivctl/,/^The "kivctl" user/{/^    /s/^    //p}' \
        /usr/share/doc/kivfoundry/README.md | sed "s/127\.0\.0\.1:4223/127.0.0.1:$port/; s/-int 4223/-int $port/")
    [ "$(wc -l <<<"$commands")" -ge 5 ] || fail "the README's kivctl commands were not found: $commands"
    local out; out=$(cd /root && env -u XDG_CONFIG_HOME HOME=/root bash -euo pipefail -c "$commands" 2>&1) ||
        fail "the README's commands failed: $out"
    [ "$(grep -c 'VorpaMediaProxy' <<<"$out")" -ge 2 ] || fail "the README's kivctl list lines do not list the proxy: $out"
    ! (cd /root && HOME=/root kivctl defaults write "$config" cabDirectory.password \
        -string "$(cat /nonexistent/kivctl.password 2>/dev/null)") 2>/dev/null || fail "kivctl stored an empty password"
    note "README: the administrator's kivctl commands work as root, an empty password is refused"
}

inside() {
    local deb=$1 out
    [ -d /run/systemd/system ] && fail "systemd runs in the throw-away root"
    export DEBIAN_FRONTEND=noninteractive
    echo "kivfoundry kivfoundry/served-folders string $served_answer" | debconf-set-selections
    note "dpkg -i" && dpkg -i "$deb"
    check_installed
    [ "$(setting files.roots)" = "$served_setting" ] || fail "files.roots is '$(setting files.roots)', want '$served_setting'"
    [ "$(setting cabDirectory.port)" = 4223 ] || fail "cabDirectory.port is $(setting cabDirectory.port), want 4223"
    grep -q '^listen: 127.0.0.1:4223$' /etc/kivfoundry/cab-directory.conf || fail "the directory does not listen on 4223"

    if command -v systemd-analyze >/dev/null; then
        out=$(systemd-analyze verify /lib/systemd/system/kiv-{cab-directory,request-proxy}.service 2>&1) &&
            [ -z "$out" ] || fail "systemd-analyze verify: $out"
    else note "SKIPPED systemd-analyze verify: not installed"; fi
    if command -v man >/dev/null; then man -w kivctl >/dev/null || fail "man kivctl finds no page"; fi

    run_services 4223
    check_backoff

    # A changed port in the conffile survives a reinstall and reaches the
    # proxy's settings; the passwords stay.
    local before; before=$(md5sum "$users_conf" /etc/kivfoundry/kivctl.password)
    sed -i 's/^listen: 127.0.0.1:4223$/listen: 127.0.0.1:4333/' /etc/kivfoundry/cab-directory.conf
    # Served folders set by hand outlive dpkg-reconfigure and upgrades.
    "${as_kiv[@]}" HOME="$kiv_home" /usr/bin/kivctl defaults write "$config" files.roots -string /srv/by-hand
    if command -v dpkg-reconfigure >/dev/null; then
        note "dpkg-reconfigure, after a port change" && dpkg-reconfigure kivfoundry
        [ "$(setting cabDirectory.port)" = 4333 ] || fail "dpkg-reconfigure did not set cabDirectory.port to 4333"
    fi
    # The state an earlier version left: no user kiv-directory, the users
    # file readable by the group kiv.
    chown root:kiv "$users_conf" && userdel kiv-directory
    # ... and users who might send in anybody's name and call every service:
    # the upgrade writes the file anew, byte for byte as before, passwords kept.
    sed -i 's/"cab\.\*\.\*\.[A-Za-z0-9_-]*"/"cab.>"/; s/, deny: \[[^]]*\]//' "$users_conf"
    ! grep -q 'cab\.\*\.\*\.' "$users_conf" || fail "the old users file still names senders"
    note "dpkg -i again, as an upgrade from a version without kiv-directory" && dpkg -i "$deb"
    check_installed
    [ "$(setting files.roots)" = /srv/by-hand ] || fail "the served folders set by hand became '$(setting files.roots)'"
    [ "$(md5sum "$users_conf" /etc/kivfoundry/kivctl.password)" = "$before" ] || fail "a reinstall changed the passwords"
    grep -q '^listen: 127.0.0.1:4333$' /etc/kivfoundry/cab-directory.conf || fail "a reinstall replaced the edited conffile"
    [ "$(setting cabDirectory.port)" = 4333 ] || fail "cabDirectory.port is $(setting cabDirectory.port), want 4333"

    note "dpkg -r" && dpkg -r kivfoundry
    [ ! -e /usr/lib/kivfoundry/KivRequestProxy ] || fail "remove left the programs"
    for u in kiv-cab-directory kiv-request-proxy; do [ ! -e "$wants/$u.service" ] || fail "remove left $u enabled"; done
    [ -f "$users_conf" ] && [ -f /etc/kivfoundry/cab-directory.conf ] || fail "remove deleted the configuration"
    [ -d /Library/KivFoundry ] && [ -d "$kiv_home" ] || fail "remove deleted the data"

    note "dpkg -P" && dpkg -P kivfoundry
    for p in /etc/kivfoundry "$kiv_home" /Library; do [ ! -e "$p" ] || fail "purge left $p"; done
    ! dpkg-query -W -f='${Status}' kivfoundry 2>/dev/null | grep -q installed || fail "kivfoundry is still known to dpkg"
    [ -z "$(debconf-show kivfoundry 2>/dev/null)" ] || fail "purge left the debconf answers: $(debconf-show kivfoundry)"
    note "install, reinstall, remove and purge: all maintainer scripts passed"
}

# Sets up the throw-away root and runs this script inside it.
throwaway_root() {
    local deb=$1 rc=0 self top
    self=$(readlink -f "$0") top=$(mktemp -d /tmp/kiv-package-root.XXXXXX)
    local net=(); command -v ip >/dev/null && net=(--net)
    # shellcheck disable=SC2016  # the inner script expands its own arguments
    # A pid namespace of its own: whatever the test started ends with it.
    unshare --mount --propagation private --pid --fork "${net[@]}" bash -euo pipefail -c '
        deb=$1 self=$2 top=$3 root=$3/root
        { mount -t tmpfs kiv-package "$top" && mkdir "$top/upper" "$top/work" "$root" &&
          mount -t overlay overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" "$root"; } || exit 77
        mount -t proc proc "$root/proc"
        for d in dev sys; do mount --rbind "/$d" "$root/$d"; done
        mount -t tmpfs run "$root/run"
        # /tmp as PrivateTmp makes it: a folder of the root file system bound
        # over /tmp (so a rename from /tmp to the data folder crosses mounts).
        mkdir -p -m 1777 "$root/var/tmp/kiv-package-tmp"
        mount --bind "$root/var/tmp/kiv-package-tmp" "$root/tmp"
        command -v ip >/dev/null && ip link set lo up 2>/dev/null || true
        cp "$deb" "$root/tmp/$(basename "$deb")" && cp "$self" "$root/tmp/test-package.sh"
        chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
            bash /tmp/test-package.sh --inside "/tmp/$(basename "$deb")"
    ' throwaway "$(readlink -f "$deb")" "$self" "$top" || rc=$?
    rmdir "$top"
    [ "$rc" != 77 ] || { note "SKIPPED the install test: no overlay mount of / here"; rc=0; }
    return "$rc"
}

if [ "${1:-}" = --inside ]; then inside "$2"; exit 0; fi
deb=${1:?usage: test-package.sh PACKAGE.deb}
check_package "$deb"
[ "$(id -u)" = 0 ] || { note "SKIPPED the install test: it needs root (a throw-away root is an overlay mount)"; exit 0; }
unshare --mount true 2>/dev/null || { note "SKIPPED the install test: no mount namespaces here"; exit 0; }
throwaway_root "$deb"
note "PASS"
