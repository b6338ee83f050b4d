-- The account of a fleet: what the paid calls of a UTC day may cost, and who may still spend it.
--
-- Amounts are micro-dollars. A process owns one lease a day, which grows by what it is granted and
-- shrinks by what it hands back. Its paid calls are rows of their own, and the only proof of what
-- it spent. The triggers alone keep the sums, so no order of requests makes them drift, and the
-- checks on the sums are the promise: never more is leased than the cap.
--
-- Rows are locked in one order, a process's own lease first and the day last; the leases of others
-- are taken only where nobody holds them. So no two requests can wait for each other.

CREATE SCHEMA fleet;

CREATE TABLE fleet.day (
    day date PRIMARY KEY,
    cap bigint NOT NULL CHECK (cap >= 0),
    leased bigint NOT NULL DEFAULT 0 CHECK (leased >= 0 AND leased <= cap),
    -- What processes paid beyond their leases, each by one call or by its calls in flight.
    beyond bigint NOT NULL DEFAULT 0 CHECK (beyond >= 0)
);

CREATE TABLE fleet.lease (
    day date REFERENCES fleet.day,
    owner text,
    amount bigint NOT NULL DEFAULT 0 CHECK (amount >= 0),
    granted bigint NOT NULL DEFAULT 0 CHECK (granted >= amount),
    paid numeric NOT NULL DEFAULT 0 CHECK (paid >= 0),
    -- The owner's last request that was carried out: one that is repeated is not carried out again.
    request bigint NOT NULL DEFAULT 0,
    expires timestamptz NOT NULL,
    PRIMARY KEY (day, owner)
);

CREATE TABLE fleet.paid (
    id uuid PRIMARY KEY,
    day date NOT NULL,
    owner text NOT NULL,
    cost numeric NOT NULL CHECK (cost >= 0),
    tokens bigint NOT NULL CHECK (tokens >= 0),
    FOREIGN KEY (day, owner) REFERENCES fleet.lease
);
CREATE INDEX ON fleet.paid (day, owner);

-- The account's day. The setting moves it, for a rehearsal of midnight.
CREATE FUNCTION fleet.clock() RETURNS timestamp LANGUAGE sql STABLE AS $$
    SELECT (clock_timestamp() + coalesce(current_setting('fleet.shift', true), '0')::interval)
        AT TIME ZONE 'UTC'
$$;

-- What a lease has left, in whole micro-dollars; negative where more was paid.
CREATE FUNCTION fleet.unspent(fleet.lease) RETURNS bigint LANGUAGE sql IMMUTABLE AS $$
    SELECT $1.amount - ceil($1.paid)::bigint
$$;

CREATE FUNCTION fleet.sum_lease() RETURNS trigger LANGUAGE plpgsql AS $$
DECLARE
    more_leased bigint := NEW.amount;
    more_beyond bigint := greatest(0, -fleet.unspent(NEW));
BEGIN
    IF TG_OP = 'UPDATE' THEN
        more_leased := more_leased - OLD.amount;
        more_beyond := more_beyond - greatest(0, -fleet.unspent(OLD));
    END IF;
    IF more_leased <> 0 OR more_beyond <> 0 THEN
        UPDATE fleet.day SET leased = leased + more_leased, beyond = beyond + more_beyond
        WHERE day = NEW.day;
    END IF;
    RETURN NULL;
END $$;
CREATE TRIGGER sum_lease AFTER INSERT OR UPDATE ON fleet.lease
    FOR EACH ROW EXECUTE FUNCTION fleet.sum_lease();

CREATE FUNCTION fleet.sum_paid() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    UPDATE fleet.lease SET paid = paid + NEW.cost WHERE day = NEW.day AND owner = NEW.owner;
    RETURN NULL;
END $$;
CREATE TRIGGER sum_paid AFTER INSERT ON fleet.paid
    FOR EACH ROW EXECUTE FUNCTION fleet.sum_paid();

-- What is paid stays paid.
CREATE FUNCTION fleet.refuse() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    RAISE EXCEPTION 'the account only grows';
END $$;
CREATE TRIGGER keep_paid BEFORE UPDATE OR DELETE ON fleet.paid
    FOR EACH ROW EXECUTE FUNCTION fleet.refuse();
CREATE TRIGGER keep_lease BEFORE DELETE ON fleet.lease
    FOR EACH ROW EXECUTE FUNCTION fleet.refuse();

-- What nobody has leased yet. The day stays locked, so the answer holds until the request ends.
CREATE FUNCTION fleet.free(of_day date) RETURNS bigint LANGUAGE sql AS $$
    SELECT cap - leased - beyond FROM fleet.day WHERE day = of_day FOR NO KEY UPDATE
$$;

-- A lease whose owner is silent past its expiry counts as what was paid; the rest returns. The one
-- who asks is not silent.
CREATE FUNCTION fleet.take_back(of_day date, who_asks text) RETURNS void LANGUAGE sql AS $$
    UPDATE fleet.lease SET amount = ceil(paid)
    WHERE day = of_day AND owner IN (
        SELECT owner FROM fleet.lease
        WHERE day = of_day AND owner <> who_asks
            AND expires < clock_timestamp() AND fleet.unspent(lease) > 0
        FOR NO KEY UPDATE SKIP LOCKED
    )
$$;

-- Grants an owner as much of its wish as the day has left, and renews its lease for a term. A
-- request that was carried out before is answered again and not carried out again.
CREATE FUNCTION fleet.lease(
    the_owner text, the_request bigint, the_cap bigint, wish bigint, term interval,
    OUT of_day date, OUT day_left interval, OUT total bigint, OUT spent boolean
) LANGUAGE plpgsql AS $$
DECLARE
    moment timestamp := fleet.clock();
    stored bigint;
    own fleet.lease;
    granted_now bigint := 0;
BEGIN
    IF wish < 0 THEN
        RAISE EXCEPTION 'a lease cannot be negative: $%', round(wish / 1e6, 6);
    END IF;
    of_day := moment::date;
    day_left := of_day + interval '1 day' - moment;
    INSERT INTO fleet.day (day, cap) VALUES (of_day, the_cap) ON CONFLICT DO NOTHING;
    SELECT cap INTO stored FROM fleet.day WHERE day = of_day;
    IF stored <> the_cap THEN
        RAISE EXCEPTION 'the cap of % is $%, not $%',
            of_day, round(stored / 1e6, 6), round(the_cap / 1e6, 6);
    END IF;
    INSERT INTO fleet.lease (day, owner, expires) VALUES (of_day, the_owner, clock_timestamp())
    ON CONFLICT DO NOTHING;
    SELECT * INTO own FROM fleet.lease
    WHERE day = of_day AND owner = the_owner FOR NO KEY UPDATE;
    IF the_request > own.request THEN
        IF wish > 0 THEN
            IF fleet.free(of_day) < wish THEN
                PERFORM fleet.take_back(of_day, the_owner);
            END IF;
            granted_now := greatest(0, least(wish, fleet.free(of_day)));
        END IF;
        UPDATE fleet.lease SET
            amount = own.amount + granted_now, granted = own.granted + granted_now,
            request = the_request, expires = clock_timestamp() + term
        WHERE day = of_day AND owner = the_owner RETURNING * INTO own;
    END IF;
    total := own.amount;
    spent := false;
    IF fleet.unspent(own) <= 0 THEN
        spent := fleet.free(of_day) <= 0 AND NOT EXISTS (
            SELECT FROM fleet.lease l WHERE day = of_day AND fleet.unspent(l) > 0
        );
    END IF;
END $$;

-- Returns what an owner has left; a request that comes late, after newer ones, changes nothing.
CREATE FUNCTION fleet.hand_back(the_owner text, the_request bigint, of_day date)
RETURNS bigint LANGUAGE plpgsql AS $$
BEGIN
    UPDATE fleet.lease SET amount = least(amount, ceil(paid)), request = the_request
    WHERE day = of_day AND owner = the_owner AND request < the_request;
    RETURN (SELECT amount FROM fleet.lease WHERE day = of_day AND owner = the_owner);
END $$;
