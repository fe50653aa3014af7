#!/usr/bin/env bash
# nginx, by OpenSSL's engine: a server with forked workers.
# Needs: nginx-light libengine-pkcs11-openssl curl
# Limit: 60
. "$(dirname "$0")/common.sh"

answers() { # The worker of each of 12 connections; more than one has to have a turn.
    local try
    for try in {1..12}; do get || return; done | sort | uniq -c >workers
    cat workers
    [ "$(wc -l <workers)" -gt 1 ]
}
start() {
    cat >nginx.conf <<END
user $(id -un);
env VELKOR_SOFTKEY_HOME; env VELKOR_CONFIG; env TMPDIR; env PKCS11_MODULE_PATH;
worker_processes 3;
pid $folder/nginx.pid;
error_log $folder/nginx.log;
ssl_engine pkcs11;
events { worker_connections 64; }
http {
    access_log off;
    client_body_temp_path nginx; proxy_temp_path nginx; fastcgi_temp_path nginx; uwsgi_temp_path nginx;
    scgi_temp_path nginx;
    server {
        listen 127.0.0.1:$port ssl reuseport;
        ssl_certificate tls.pem;
        ssl_certificate_key "engine:pkcs11:$tls_url;type=private;pin-value=1234";
        return 200 "worker \$pid\n";
    }
}
END
    timeout 60 /usr/sbin/nginx -p "$folder/" -c "$folder/nginx.conf"
    await_port "$port"
}
reload() {
    local before
    before=$(sort workers)
    kill -HUP "$(cat nginx.pid)"
    sleep 2
    answers
    [ "$before" != "$(sort workers)" ]
}

prepare_certificates
port=$(free_port)
check "nginx starts" start
check "nginx, forked workers" answers
check "nginx, new workers after a reload" reload
[ ! -e nginx.pid ] || kill -QUIT "$(cat nginx.pid)"
