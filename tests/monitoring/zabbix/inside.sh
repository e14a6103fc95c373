#!/bin/sh
# The first process of a Zabbix server's sandbox, as an ordinary user: database, web interface, trap receiver, server.
# /srv is the test's folder, for the configuration files, the data and the logs.
set -eu
PATH=/usr/lib/postgresql/15/bin:/usr/sbin:/usr/bin:/sbin:/bin
export PATH LANG=C.UTF-8 PGHOST=/srv/run PGUSER=zabbix
mkdir -p /srv/run
initdb --pgdata /srv/database --username zabbix --auth trust --encoding UTF8 --no-sync > /srv/initdb.log
pg_ctl --pgdata /srv/database --log /srv/postgres.log --wait \
    -o "-k /srv/run -c listen_addresses='' -c fsync=off -c full_page_writes=off -c autovacuum=off" start > /dev/null
createdb zabbix
for part in schema images data; do
    zcat "/usr/share/zabbix-server-pgsql/$part.sql.gz"
done | psql --quiet zabbix > /srv/schema.log 2>&1
psql --quiet --command ANALYZE zabbix  # autovacuum is off

: > /srv/traps.log
snmptrapd -f -n -C -c /srv/snmptrapd.conf -Le 127.0.0.1:1162 > /srv/snmptrapd.log 2>&1 &
PHP_CLI_SERVER_WORKERS=4 php -d date.timezone=UTC -d post_max_size=16M -d max_execution_time=300 -d max_input_time=300 \
    -d memory_limit=512M -S 127.0.0.1:8080 -t /usr/share/zabbix > /srv/php.log 2>&1 &
exec zabbix_server -f -c /srv/zabbix_server.conf > /srv/server.log 2>&1
