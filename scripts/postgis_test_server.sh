#!/usr/bin/env bash
# A throw-away PostgreSQL + PostGIS server for the features tests.
#   postgis_test_server.sh start STATE_FILE   initdb into a fresh temporary
#       folder, start the server, create database "kel" with PostGIS, and
#       write the GDAL connection string to STATE_FILE
#   postgis_test_server.sh stop STATE_FILE    stop it and remove the folder
# The server listens only on a Unix socket inside its private folder (no
# TCP, so nothing else on the machine can reach its password-less account);
# its port is free by construction, since it only names that socket. Root
# cannot run postgres, so as root the server runs as "nobody". Every failure
# stops and removes what was started and exits non-zero.
set -Eeuo pipefail

action=${1:-}
state=${2:-}
if [ -z "$action" ] || [ -z "$state" ]; then
  echo "usage: $0 start|stop STATE_FILE" >&2
  exit 2
fi

bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1)
if [ -z "$bin" ] || [ ! -x "$bin/pg_ctl" ]; then
  echo "postgis: no PostgreSQL server found under /usr/lib/postgresql (run scripts/setup.sh --test)" >&2
  exit 1
fi

as_owner() {
  if [ "$(id -u)" -eq 0 ]; then runuser -u nobody -- "$@"; else "$@"; fi
}

stop() {
  local dir=$1
  if [ -f "$dir/data/postmaster.pid" ]; then
    as_owner "$bin/pg_ctl" -D "$dir/data" -m immediate -w stop >/dev/null 2>&1 || true
  fi
  rm -rf "$dir"
}

case "$action" in
  start)
    if [ -f "$state" ]; then
      # A previous run died before its cleanup: stop that server first.
      old=$(sed -n 's/^dir=//p' "$state")
      [ -n "$old" ] && stop "$old"
      rm -f "$state"
    fi
    # Short path: a Unix socket path must stay under 108 bytes.
    dir=$(mktemp -d /tmp/kel-pg.XXXXXX)
    started=no
    trap '[ "$started" = yes ] || { echo "postgis: start failed:" >&2; cat "$dir"/*.log >&2 2>/dev/null || true; stop "$dir"; }' EXIT
    chmod 700 "$dir"
    if [ "$(id -u)" -eq 0 ]; then chown nobody "$dir"; fi
    port=$(( 40000 + RANDOM % 20000 ))
    as_owner "$bin/initdb" -D "$dir/data" -U kel --auth=trust -E UTF8 --locale=C.UTF-8 --no-sync \
      --no-instructions >"$dir/setup.log" 2>&1
    as_owner "$bin/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -t 60 start \
      -o "-p $port -k $dir -c listen_addresses= -c fsync=off -c synchronous_commit=off -c full_page_writes=off" \
      >/dev/null
    psql=("$bin/psql" -X -q -v ON_ERROR_STOP=1 -h "$dir" -p "$port" -U kel)
    "${psql[@]}" -d postgres -c "CREATE DATABASE kel" >>"$dir/setup.log" 2>&1
    "${psql[@]}" -d kel -c "CREATE EXTENSION postgis" >>"$dir/setup.log" 2>&1
    printf 'dir=%s\nconnection=PG:host=%s port=%s dbname=kel user=kel\n' "$dir" "$dir" "$port" >"$state"
    started=yes
    echo "postgis: server on $dir port $port"
    ;;
  stop)
    if [ -f "$state" ]; then
      dir=$(sed -n 's/^dir=//p' "$state")
      [ -n "$dir" ] && stop "$dir"
      rm -f "$state"
    fi
    ;;
  *)
    echo "usage: $0 start|stop STATE_FILE" >&2
    exit 2
    ;;
esac
