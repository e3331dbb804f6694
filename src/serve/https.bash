# https.bash: the HTTPS front of varnok-serve --https, sourced by the launcher.
#
# haproxy, confined by bubblewrap as the serving user, ends TLS on the HTTPS port and passes each
# connection on to the plain server on 127.0.0.1, but only once the client has sent bytes after its
# handshake: the server answers one connection at a time, so an idle connection a browser opens
# ahead of time must never reach it. On the port after the HTTPS port, the same haproxy answers
# plain HTTP with the CA certificate (and nothing else), so that a phone can fetch it and trust it.
# The CA and the leaf live in the serving user's data folder; the CA key never leaves it.
#
# The launcher sets, before the calls:
#   staging    a folder only the launcher's user may enter (root's, when root started it)
#   link_tool  varnok-link;  uid, gid  the serving user;  say, fail  its message functions
#   as_user    the command prefix that runs a step as the serving user (empty when that is the caller)
# and calls, in this order:
#   https_require                  ends the launcher with one line when haproxy or openssl is missing
#   https_certificates             makes the CA on first use, and a leaf for the current addresses
#   https_start_front PLAIN HTTPS  starts the front (its pid in https_front_pid), or ends the launcher
#   https_stop_front               stops it (from the launcher's EXIT trap)
# and passes "${https_link_options[@]}" to varnok-link --serving below the "Listening on" line.

https_front_pid=""
https_link_options=()
https_ca_path=/ca.crt          # the CA's one path on the CA port

# One line, and the end of the launcher, when the front or the certificate tool is missing.
https_require() {
    local missing=()
    [ -x /usr/sbin/haproxy ] || missing+=(haproxy)
    command -v openssl >/dev/null || missing+=(openssl)
    [ ${#missing[@]} -eq 0 ] || fail "--https needs ${missing[*]}: sudo apt install ${missing[*]}"
}

# The serving user's data folder for the CA: $XDG_DATA_HOME (the caller's own only), else ~/.local/share.
https_data_folder() {
    local home
    if [ "$(id -u)" -eq "$uid" ]; then
        home=${HOME:-$(getent passwd "$uid" | cut -d: -f6)}
        echo "${XDG_DATA_HOME:-$home/.local/share}/varnok"
    else
        home=$(getent passwd "$uid" | cut -d: -f6)
        [ -n "$home" ] && [ -d "$home" ] ||
            fail "--https keeps its CA in the serving user's home, and $(id -un "$uid") has no home folder"
        echo "$home/.local/share/varnok"
    fi
}

# The CA's own steps, run as the serving user with the data folder as working folder: makes the CA
# when there is none, and a leaf for the addresses (the arguments) when they or the CA changed, when
# it is not the CA's, or when it ends within 30 days. Prints the CA's SHA-256 fingerprint.
https_issue() {
    set -e
    umask 077
    local name_constraints="critical,permitted;IP:10.0.0.0/255.0.0.0,permitted;IP:172.16.0.0/255.240.0.0"
    name_constraints+=",permitted;IP:192.168.0.0/255.255.0.0,permitted;IP:127.0.0.0/255.0.0.0"
    # A DNS subtree under the reserved .invalid: no DNS name a browser asks for falls in it.
    name_constraints+=",permitted;DNS:invalid"
    if [ ! -s ca.key ] || [ ! -s ca.crt ]; then
        rm -f ca.key ca.crt leaf.key leaf.crt addresses
        openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -sha256 -days 3650 \
            -keyout ca.key -out ca.crt -subj "/O=Varnok HTTP Server/CN=Varnok local CA on $(uname -n | cut -c1-40)" \
            -addext "basicConstraints=critical,CA:TRUE,pathlen:0" -addext "keyUsage=critical,keyCertSign,cRLSign" \
            -addext "nameConstraints=$name_constraints" -addext "subjectKeyIdentifier=hash" 2>/dev/null
    fi
    chmod 0600 ca.key
    local wanted
    wanted=$(printf '%s\n' "$@" | sort)
    if [ "$wanted" != "$(cat addresses 2>/dev/null)" ] || ! openssl verify -CAfile ca.crt leaf.crt >/dev/null 2>&1 ||
        ! openssl x509 -in leaf.crt -noout -checkend $((30 * 86400)) >/dev/null 2>&1; then
        local names="" address
        for address in "$@"; do names+="${names:+,}IP:$address"; done
        printf '%s\n' "basicConstraints=critical,CA:FALSE" "keyUsage=critical,digitalSignature" \
            "extendedKeyUsage=serverAuth" "subjectAltName=$names" "subjectKeyIdentifier=hash" \
            "authorityKeyIdentifier=keyid" >leaf.ext
        openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout leaf.key -out leaf.csr \
            -subj "/O=Varnok HTTP Server" 2>/dev/null
        # 825 days: the longest a phone accepts for a server certificate.
        openssl x509 -req -in leaf.csr -CA ca.crt -CAkey ca.key -set_serial "0x$(openssl rand -hex 16)" \
            -days 825 -sha256 -extfile leaf.ext -out leaf.crt 2>/dev/null
        rm -f leaf.csr leaf.ext
        echo "$wanted" >addresses
    fi
    openssl x509 -in ca.crt -noout -fingerprint -sha256 | cut -d= -f2 | tr -d :
}

# Makes or renews the certificates as the serving user, and copies what the front reads (the leaf
# with its key, and the CA certificate) into $staging/front, read through that user.
https_certificates() {
    local data addresses fingerprint
    data=$(https_data_folder)
    # With no private address yet, the leaf names 127.0.0.1 alone: the front still starts.
    mapfile -t addresses < <("$link_tool" --addresses)
    [ ${#addresses[@]} -gt 0 ] || addresses=(127.0.0.1)
    "${as_user[@]}" mkdir -p -m 0700 "$data" || fail "--https: cannot make $data"
    fingerprint=$(cd / && "${as_user[@]}" bash -c "cd \"\$1\" && shift && $(declare -f https_issue) && https_issue \"\$@\"" \
        https "$data" "${addresses[@]}") && [ ${#fingerprint} -eq 64 ] ||
        fail "--https: the certificates in $data could not be made"
    mkdir -m 0700 "$staging/front" || fail "--https: cannot make $staging/front"
    { "${as_user[@]}" cat "$data/leaf.crt" "$data/leaf.key" >"$staging/front/leaf.pem" &&
        "${as_user[@]}" cat "$data/ca.crt" >"$staging/front/ca.crt"; } || fail "--https: cannot read the certificates in $data"
    chmod 0400 "$staging/front/leaf.pem" && chmod 0444 "$staging/front/ca.crt" &&
        chown "$uid:$gid" "$staging/front/leaf.pem"
    https_fingerprint=$fingerprint
}

# The front's configuration for the plain, HTTPS and CA ports.
https_config() {
    cat <<EOF
global
    maxconn 256
    ssl-default-bind-options ssl-min-ver TLSv1.2 ssl-max-ver TLSv1.3 no-tls-tickets

defaults
    timeout connect 5s
    timeout client 30s
    timeout server 60s
    timeout client-fin 5s
    timeout http-request 10s

frontend https
    mode tcp
    bind :$2 ssl crt /front/leaf.pem alpn http/1.1
    # Decrypted bytes only come after the handshake: wait for the first, and drop a connection that
    # sends none in time, so that only a request ever reaches the one-at-a-time server.
    tcp-request inspect-delay 30s
    tcp-request content accept if { req.len gt 0 }
    tcp-request content reject
    default_backend server

backend server
    mode tcp
    server plain 127.0.0.1:$1

frontend ca
    mode http
    bind :$3
    # Android's browsers hand a CA type to an installer that refuses CAs since Android 11: there it is
    # a download, to install from Settings; elsewhere (iOS Safari) the type that offers the profile.
    acl ca path $https_ca_path
    acl android req.hdr(user-agent) -m sub Android
    http-request return status 200 content-type application/octet-stream file /front/ca.crt hdr Content-Disposition "attachment; filename=varnok-ca.crt" if ca android
    http-request return status 200 content-type application/x-x509-ca-cert file /front/ca.crt if ca
    http-request return status 404 content-type text/plain string "Not found: this port serves only $https_ca_path\n"
EOF
}

# Starts haproxy in its sandbox, for the plain port $1 and the HTTPS port $2 (the CA port is $2 + 1),
# and waits until it listens; ends the launcher with its last line when it cannot.
https_start_front() {
    local plain=$1 port=$2 ca_port=$(($2 + 1)) sandbox=() file command=(/usr/sbin/haproxy -db -f /front/haproxy.cfg)
    [ "$ca_port" -le 65535 ] || fail "--https: the HTTPS port must be below 65535 (the CA is served on the next one)"
    [ "$port" -ge 1024 ] || [ "$(id -u)" -eq 0 ] ||
        fail "--https: only root may bind port $port (start varnok-serve with sudo, or choose --https-port 1024 or more)"
    https_config "$plain" "$port" "$ca_port" >"$staging/front/haproxy.cfg"
    sandbox=(--unshare-ipc --unshare-pid --unshare-uts --unshare-cgroup-try --new-session --die-with-parent --clearenv
        --proc /proc --dev /dev --perms 0755 --dir /front)
    local programs=(/usr/sbin/haproxy) folder
    # As the launcher does for the server, root drops to the serving user inside, after the mounts.
    [ "$(id -u)" -ne 0 ] || programs+=(/usr/bin/setpriv)
    local files=($(for file in "${programs[@]}"; do echo "$file"; ldd "$file" | grep -o '/[^ ]*'; done | sort -u))
    # Parents of the mount points are made 0755 first: bubblewrap would make them 0700, root's alone.
    for folder in $(for file in "${files[@]}"; do while file=${file%/*}; [ -n "$file" ]; do echo "$file"; done; done | sort -u); do
        sandbox+=(--perms 0755 --dir "$folder")
    done
    for file in "${files[@]}"; do sandbox+=(--ro-bind "$file" "$file"); done
    for file in haproxy.cfg leaf.pem ca.crt; do sandbox+=(--ro-bind "$staging/front/$file" "/front/$file"); done
    if [ "$(id -u)" -eq 0 ]; then
        # Only the right to bind a low port is kept.
        sandbox+=(--cap-drop ALL --cap-add CAP_SETUID --cap-add CAP_SETGID --cap-add CAP_SETPCAP --cap-add CAP_NET_BIND_SERVICE)
        command=(/usr/bin/setpriv --reuid "$uid" --regid "$gid" --clear-groups --no-new-privs
            --inh-caps -all,+net_bind_service --ambient-caps -all,+net_bind_service
            --bounding-set -all,+net_bind_service -- "${command[@]}")
    else
        sandbox+=(--unshare-user)
    fi
    bwrap "${sandbox[@]}" -- "${command[@]}" </dev/null >"$staging/front.log" 2>&1 &
    https_front_pid=$!
    local tries
    for ((tries = 0; tries < 100; tries++)); do
        kill -0 "$https_front_pid" 2>/dev/null || break
        [ -n "$(ss -Hltn "( sport = :$port )")" ] && [ -n "$(ss -Hltn "( sport = :$ca_port )")" ] && break
        sleep 0.05
    done
    if ! kill -0 "$https_front_pid" 2>/dev/null || [ "$tries" -eq 100 ]; then
        https_stop_front
        fail "--https: haproxy did not listen on ports $port and $ca_port: $(grep -m1 -E 'ALERT|rror' "$staging/front.log" | cut -c1-160)"
    fi
    local address
    address=$("$link_tool" --addresses | head -n1)
    https_link_options=(--https "$port" --ca-url "http://${address:-127.0.0.1}:$ca_port$https_ca_path" --fingerprint "$https_fingerprint")
}

# Stops the front, when it runs.
https_stop_front() {
    [ -n "$https_front_pid" ] || return 0
    kill -TERM "$https_front_pid" 2>/dev/null
    wait "$https_front_pid" 2>/dev/null
    https_front_pid=""
}
