#!/usr/bin/env bash
# A throwaway PostgreSQL server for the tests: no TCP port, a Unix socket in
# a fresh temporary directory, no durability (the tests kill clients, never
# the server).
#   scripts/pgtest.sh start STATE_DIR [--durable]
#       initdb into a temporary directory and start a server there; writes
#       its libpq connection string to STATE_DIR/conninfo. --durable keeps
#       PostgreSQL's default fsync settings (for benchmarks).
#   scripts/pgtest.sh stop STATE_DIR
#       stops that server and removes its directory.
# Run as root, the server runs as the user "postgres" (which the
# postgresql-15 package creates); otherwise as the calling user.
set -euo pipefail
cmd="${1:-}"
state="${2:-}"
if [ -z "$cmd" ] || [ -z "$state" ]; then
  echo "usage: $0 start|stop STATE_DIR [--durable]" >&2
  exit 2
fi
bin=/usr/lib/postgresql/15/bin
as_server() {
  if [ "$(id -u)" = 0 ]; then runuser -u postgres -- "$@"; else "$@"; fi
}

stop() {
  if [ -f "$state/dir" ]; then
    dir="$(cat "$state/dir")"
    if [ -d "$dir/data" ]; then
      as_server "$bin/pg_ctl" -D "$dir/data" -m immediate -w stop >/dev/null 2>&1 || true
    fi
    rm -rf "$dir"
  fi
  rm -f "$state/dir" "$state/conninfo"
}

case "$cmd" in
  start)
    if [ ! -x "$bin/initdb" ]; then
      echo "$0: PostgreSQL 15 is not installed (apt-get install postgresql-15; scripts/setup.sh does)" >&2
      exit 1
    fi
    mkdir -p "$state"
    stop  # a server left over by an interrupted run
    dir="$(mktemp -d /tmp/kivpg.XXXXXX)"
    echo "$dir" > "$state/dir"
    chmod 755 "$dir"
    if [ "$(id -u)" = 0 ]; then chown postgres: "$dir"; fi
    settings=(-c listen_addresses= -c "unix_socket_directories=$dir" -c max_connections=200)
    if [ "${3:-}" != "--durable" ]; then
      settings+=(-c fsync=off -c synchronous_commit=off -c full_page_writes=off)
    fi
    as_server "$bin/initdb" -D "$dir/data" -U postgres -A trust -E UTF8 --locale=C.UTF-8 >"$dir/initdb.log" 2>&1 ||
      { cat "$dir/initdb.log" >&2; exit 1; }
    as_server "$bin/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -o "${settings[*]}" start >/dev/null ||
      { cat "$dir/server.log" >&2; exit 1; }
    echo "host=$dir user=postgres dbname=postgres" > "$state/conninfo"
    echo "PostgreSQL for the tests: $(cat "$state/conninfo")"
    ;;
  stop)
    stop
    ;;
  *)
    echo "usage: $0 start|stop STATE_DIR [--durable]" >&2
    exit 2
    ;;
esac
