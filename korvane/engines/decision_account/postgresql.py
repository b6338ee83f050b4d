"""An account in PostgreSQL, for the processes of many machines."""

from __future__ import annotations

import json
import math
import queue
import re
import secrets
import select
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager, suppress
from typing import Any

import psycopg
from psycopg import conninfo, errors, pq

from .records import LIMIT_S, AccountError, AccountSilent
from .rules import REQUESTS, SECTIONS, TRIGGERS, VERSION, SqlStore

_MAKE_S = 10.0  # the limit of making an account
# Any number will do that no other program of the database takes.
_MAKING = 0x6465_6369
# Errors that pass: a lost connection, no resources, a conflict, a server that stops or starts or
# fails, a row that is not to be had, the read-only moment of a failover.
_PASSING = re.compile("08|40|53|57|58|XX|55P03|25006")
# What refuses a connection for good. The server's code is not to be had there, only its words.
_REFUSED = re.compile(
    "authentication failed|no password supplied|does not exist|no such (database|user)"
    "|no pg_hba.conf entry|permission denied|not permitted to log in"
)
_DURABLY = ("admit", "settle")
_PLAIN = "SELECT decision_account."
_MISSING = ("3F000", "42883")  # no such schema, no such function

Run = Callable[..., str | None]


class PostgresStore(SqlStore):
    """A request is one call of a function on the server, which takes its turn by locking the
    account's row. It leaves nothing in the session, so a pooler may stand between.

    A connection is used by one thread at a time. It is kept only where the request went well: what
    a failed one left on it is not known.
    """

    lanes = 4  # the account's row is one: more only wait for it on the server

    def __init__(self, url: str) -> None:
        """Name the store: nothing is opened yet."""
        try:
            options = conninfo.conninfo_to_dict(url)
        except psycopg.Error:
            raise AccountError("not the URL of a PostgreSQL database") from None
        self._name = f"{options.get('host', 'localhost')}/{options.get('dbname', '')}"
        options.setdefault("target_session_attrs", "read-write")
        self._options = options | {"client_encoding": "UTF8"}
        self.forked()

    def forked(self) -> None:
        # The library closes no connection that another process made.
        self.process = secrets.token_hex(6)
        self._closed = False
        self._idle: list[pq.abc.PGconn] = []
        self._turns: queue.SimpleQueue[None] = queue.SimpleQueue()
        for _ in range(self.lanes):
            self._turns.put(None)

    def open(self, cap: int | None) -> int:
        try:
            version, known_cap = self._ask("account", {})[0]
        except AccountError as error:
            if getattr(error.__cause__, "sqlstate", None) not in _MISSING:
                raise
            version = 0
        if not version and cap is None:
            raise AccountError(f"there is no account in {self._name}")
        if version < VERSION:
            with self._connection(_MAKE_S) as run:
                self._make(run, cap)
            version, known_cap = self._ask("account", {})[0]
        if version > VERSION:
            raise AccountError(
                f"the account {self._name} was made by a newer version of decision_account"
            )
        return int(known_cap)

    def close(self) -> None:
        self._closed = True
        while connection := self._take():
            connection.finish()

    def _ask(self, request: str, *given: dict[str, Any], limit: float = math.inf) -> list[Any]:
        with self._connection(min(limit, LIMIT_S)) as run:
            how = "CALL decision_account.durable_" if request in _DURABLY else _PLAIN
            answer = run(f"{how}{request}($1)", json.dumps(given))
        return json.loads(answer, object_pairs_hook=_row) if answer else []

    def _make(self, run: Run, cap: int | None) -> None:
        """Make the account, or bring it up to date; of those who come at once the first does."""
        run("BEGIN")
        run(f"SELECT pg_advisory_xact_lock({_MAKING})")
        # From the catalogue: what a session remembers of names may be older than its locks.
        tables = (
            "SELECT string_agg(relname, ' ') FROM pg_class WHERE relkind = 'r' AND"
            " relnamespace = (SELECT oid FROM pg_namespace WHERE nspname = 'decision_account')"
        )
        made = 0
        if names := (run(tables) or "").split():
            if "account" not in names:
                raise AccountError(
                    f"the schema decision_account of {self._name} is another program's"
                )
            made = int(run("SELECT version FROM decision_account.account") or 0)
        if made < VERSION:
            run(_script(made, cap))
        run("COMMIT")

    @contextmanager
    def _connection(self, limit: float) -> Iterator[Run]:
        until = time.monotonic() + limit
        try:
            self._turns.get(timeout=limit)
        except queue.Empty:
            raise AccountSilent(f"the account {self._name} does not answer: it is busy") from None
        connection = None
        try:
            if self._closed:  # while this waited for its turn
                raise AccountError("the account is closed")
            connection = self._take() or self._connect(until)
            used = connection
            yield lambda text, *values: _run(used, until, text, *values)
            self._idle.append(connection)
            connection = None
            if self._closed:
                self.close()
        except psycopg.Error as error:
            raise self._trouble(error) from error
        finally:
            if connection is not None:
                connection.finish()
            self._turns.put(None)

    def _take(self) -> pq.abc.PGconn | None:
        """A connection that was kept. Where its server has said something since, that was that it
        goes."""
        with suppress(IndexError):
            while True:
                connection = self._idle.pop()
                if not _ready(connection.socket, select.POLLIN, 0):
                    return connection
                connection.finish()
        return None

    def _connect(self, until: float) -> pq.abc.PGconn:
        """A connection to the first of the servers that can be written to."""
        attempts = conninfo.conninfo_attempts(self._options)
        troubles: list[str] = []
        for attempt in attempts:
            now = time.monotonic()
            share = (until - now) / (len(attempts) - len(troubles))
            try:
                return _connect(conninfo.make_conninfo("", **attempt), now + share)
            except psycopg.Error as error:
                troubles.append(_words(error))
        if all(map(_REFUSED.search, troubles)):
            raise AccountError(f"the account {self._name} cannot be used: {troubles[-1]}")
        raise psycopg.OperationalError(troubles[-1])

    def _trouble(self, error: psycopg.Error) -> Exception:
        if error.sqlstate is None or _PASSING.match(error.sqlstate):
            return AccountSilent(f"the account {self._name} does not answer: {_words(error)}")
        return AccountError(f"the account {self._name} cannot be used: {_words(error)}")


def _connect(options: str, until: float) -> pq.abc.PGconn:
    connection = pq.PGconn.connect_start(options.encode())
    try:
        while (state := connection.connect_poll()) != pq.PollingStatus.OK:
            if state == pq.PollingStatus.FAILED:
                raise psycopg.OperationalError(connection.get_error_message())
            reads = state == pq.PollingStatus.READING
            _wait(connection.socket, select.POLLIN if reads else select.POLLOUT, until)
        connection.nonblocking = 1
    except BaseException:
        connection.finish()
        raise
    return connection


def _run(connection: pq.abc.PGconn, until: float, text: str, *values: str) -> str | None:
    """Run statements, or one that has parameters; the first value of the last answer."""
    if values:
        connection.send_query_params(text.encode(), [value.encode() for value in values])
    else:
        connection.send_query(text.encode())
    while connection.flush():
        _wait(connection.socket, select.POLLIN | select.POLLOUT, until)
        connection.consume_input()
    answer = None
    while True:
        while connection.is_busy():
            _wait(connection.socket, select.POLLIN, until)
            connection.consume_input()
        result = connection.get_result()
        if result is None:
            return None if answer is None else answer.decode()
        if result.status == pq.ExecStatus.FATAL_ERROR:
            raise errors.error_from_result(result)
        answer = result.get_value(0, 0) if result.ntuples else None


def _wait(file: int, events: int, until: float) -> None:
    if not _ready(file, events, until - time.monotonic()):
        raise psycopg.OperationalError("it says nothing")


def _ready(file: int, events: int, seconds: float) -> bool:
    poll = select.poll()
    poll.register(file, events)
    return bool(poll.poll(max(0.0, seconds) * 1000))


def _words(error: psycopg.Error) -> str:
    words = error.diag.message_primary or str(error).strip().rpartition("\n")[-1]
    return re.sub(r".*(FATAL|ERROR):\s+", "", words)


def _row(pairs: list[tuple[str, Any]]) -> tuple[Any, ...]:
    return tuple(value for _, value in pairs)


# The rules on the server.

_KINDS = (
    ("days|state", "integer"),
    ("cap|cost|held|tokens_per_call", "bigint"),
    (r"cost_per_\w+|tokens_per_byte|patience", "double precision"),
    (r"\w+", "text"),
)
_PATH = "SET search_path = pg_catalog, decision_account, pg_temp"
# A plan for each value would cost more than what is planned.
_LIMITS = f"SET lock_timeout = '{LIMIT_S:.0f}s' SET plan_cache_mode = force_generic_plan"
_BASE = f"""
CREATE FUNCTION decision_account.clock() RETURNS double precision LANGUAGE sql VOLATILE AS
$$ SELECT extract(epoch FROM clock_timestamp())::double precision $$;
CREATE FUNCTION decision_account.day_of(double precision) RETURNS text LANGUAGE sql STABLE AS
$$ SELECT to_char(to_timestamp($1) AT TIME ZONE 'UTC', 'YYYY-MM-DD') $$;
CREATE FUNCTION decision_account.refuse() RETURNS trigger LANGUAGE plpgsql {_PATH} AS
$$ BEGIN RAISE EXCEPTION 'the account keeps what was paid'; END $$;
"""
# What no hand does, whosever it is.
_KEEP = """
CREATE OR REPLACE TRIGGER keep BEFORE DELETE ON {table} FOR EACH ROW
WHEN (current_setting('decision_account.prune', true) IS DISTINCT FROM 'on')
EXECUTE FUNCTION refuse();
CREATE OR REPLACE TRIGGER keep_all BEFORE TRUNCATE ON {table} EXECUTE FUNCTION refuse();
"""
_COUNT = """
CREATE OR REPLACE FUNCTION count_{event}() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
IF TG_OP = 'UPDATE' AND (OLD.state = 3 OR OLD.state > NEW.state) THEN
RAISE EXCEPTION 'the account keeps what was paid';
END IF;
{steps}
RETURN NULL;
END $$;
CREATE OR REPLACE TRIGGER count_{event} AFTER {event} ON calls
FOR EACH ROW EXECUTE FUNCTION count_{event}();
"""
_FUNCTION = f"""
CREATE OR REPLACE FUNCTION decision_account.{{name}}(json) RETURNS json
LANGUAGE plpgsql SECURITY DEFINER {_PATH} {_LIMITS} {{setting}} AS $$
DECLARE
given record;
answer json;
BEGIN
PERFORM FROM account FOR UPDATE;
FOR given IN SELECT clock() AS now, * FROM json_to_recordset($1) AS asked({{columns}}) LOOP
{{steps}};
END LOOP;
RETURN answer;
END $$;
"""
# The disk is waited for after the row is let go of, and so by all who wait together. Nobody is
# answered before it has everything that he saw: what is written later is on it later.
_DURABLE = """
CREATE OR REPLACE PROCEDURE decision_account.durable_{name}(INOUT given json) LANGUAGE plpgsql AS $$
BEGIN
PERFORM set_config('synchronous_commit', 'off', true);
given := decision_account.{name}(given);
COMMIT;
PERFORM pg_logical_emit_message(true, '', '');
END $$;
"""


def _script(made: int, cap: int | None) -> str:
    """Brings an account up to date that was made by a version, or by none (0)."""
    parts = []
    if not made:
        parts.append("CREATE SCHEMA IF NOT EXISTS decision_account;")
        parts.append(_BASE)
    parts.append("SET LOCAL search_path = decision_account;")
    for version in range(made + 1, VERSION + 1):
        steps = ";".join(SECTIONS[f"schema {version}"])
        parts.append(steps.replace(":cap", str(cap)) + ";")
    for event in ("INSERT", "UPDATE"):
        steps = "".join(
            f"IF {condition} THEN {';'.join(steps)}; END IF;\n"
            for of, condition, steps in TRIGGERS
            if of == event
        )
        # Called with whatever path whoever changes a row by hand has.
        steps = re.sub(r"(UPDATE|INTO) (?!SET)", r"\1 decision_account.", steps)
        parts.append(_COUNT.format(event=event, steps=steps))
    parts += [_KEEP.format(table=table) for table in ("account", "calls", "days")]
    parts += [
        _function(name)
        for name in (
            "account",
            "admit",
            "settle",
            "look",
            "known",
            "table",
            "books",
            "set_cap",
            "prune",
        )
    ]
    parts += [_DURABLE.format(name=name) for name in _DURABLY]
    parts.append("REVOKE ALL ON ALL ROUTINES IN SCHEMA decision_account FROM PUBLIC;")
    parts.append(f"UPDATE account SET version = {VERSION};")
    return "".join(parts)


def _function(name: str) -> str:
    steps = [
        f"SELECT json_agg(r) INTO answer FROM ({step}) AS r" if step.startswith("SELECT") else step
        for step in REQUESTS[name]
    ]
    if name == "settle":  # most replies teach nothing, and what does not run takes no time
        steps.insert(len(SECTIONS["settle"]), "CONTINUE WHEN given.tokens_per_call IS NULL")
    text = re.sub(r":(\w+)", r"given.\1", ";\n".join(steps))
    used = {"process"} | set(re.findall(r"given\.(\w+)", text)) - {"now"}
    return _FUNCTION.format(
        name=name,
        columns=", ".join(f"{column} {_kind(column)}" for column in sorted(used)),
        setting="SET decision_account.prune = 'on'" if name == "prune" else "",
        steps=text,
    )


def _kind(column: str) -> str:
    return next(kind for names, kind in _KINDS if re.fullmatch(names, column))
