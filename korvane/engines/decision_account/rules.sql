-- The rules of an account, stated once for every store. What follows is understood by SQLite and by
-- PostgreSQL alike: each store runs the statements of a request one after the other in one
-- transaction, holding the account's only row from the first to the last. `:name` is a parameter.
--
-- Amounts are integers of a nano-dollar. Times are seconds since 1970, and `day_of` gives the UTC
-- date of one as a text; `:now` is the store's, never a caller's. A call has one of four states, and may only rise:
--     0 open     it holds `held` (null: an unknown amount), and counts `cost` if it is lost
--     1 lost     it counts what it held
--     2 unpaid   it counts nothing
--     3 paid     it counts what its reply cost
-- So a request that comes twice, late or out of order changes nothing that a later one said.

-- section: schema 1
CREATE TABLE account (
  version integer NOT NULL,
  cap bigint NOT NULL,
  -- Of the open calls, kept by the triggers: how many hold, what they hold, how many of them an
  -- unknown amount.
  holders bigint NOT NULL,
  held bigint NOT NULL,
  unbounded bigint NOT NULL,
  -- The most that a reply has come to.
  cost_per_byte double precision NOT NULL,
  cost_per_call double precision NOT NULL,
  tokens_per_byte double precision NOT NULL,
  tokens_per_call bigint NOT NULL
);
CREATE TABLE calls (
  id text PRIMARY KEY,
  state integer NOT NULL CHECK (state BETWEEN 0 AND 3),
  day text NOT NULL,       -- on which it was admitted; once it has ended, on which it counts
  held bigint CHECK (held >= 0),
  cost bigint NOT NULL CHECK (cost >= 0),
  began double precision NOT NULL,
  ends double precision NOT NULL,
  process text NOT NULL,
  name text NOT NULL,
  feature text NOT NULL
);
CREATE INDEX open_calls ON calls (ends) WHERE state = 0;
CREATE INDEX calls_by_day ON calls (day);
-- What the ended calls of a day count, kept by the triggers: all of them, and the lost ones.
CREATE TABLE days (
  day text PRIMARY KEY,
  paid bigint NOT NULL,
  lost bigint NOT NULL
);
-- The features whose cost is known.
CREATE TABLE features (feature text PRIMARY KEY);
INSERT INTO account VALUES (1, :cap, 0, 0, 0, 0, 0, 0, 0);

-- What triggers do for a row that came or changed: they take out what it was, and count what it is.
-- section: count open
UPDATE account SET
  holders = holders + 1,
  held = held + coalesce(NEW.held, 0),
  unbounded = unbounded + CASE WHEN NEW.held IS NULL THEN 1 ELSE 0 END;

-- section: count ended
INSERT INTO days (day, paid, lost)
VALUES (NEW.day, NEW.cost, CASE WHEN NEW.state = 1 THEN NEW.cost ELSE 0 END)
ON CONFLICT (day) DO UPDATE SET
  paid = days.paid + excluded.paid,
  lost = days.lost + excluded.lost;

-- section: uncount open
UPDATE account SET
  holders = holders - 1,
  held = held - coalesce(OLD.held, 0),
  unbounded = unbounded - CASE WHEN OLD.held IS NULL THEN 1 ELSE 0 END;

-- section: uncount ended
UPDATE days SET
  paid = paid - OLD.cost,
  lost = lost - CASE WHEN OLD.state = 1 THEN OLD.cost ELSE 0 END
WHERE day = OLD.day;

-- section: expire
-- A call that is open past its end is lost. It counts on the day of its end, and never before the
-- day whose spend it was admitted to.
UPDATE calls SET state = 1, day = CASE WHEN day < day_of(ends) THEN day_of(ends) ELSE day END
WHERE state = 0 AND ends <= :now;

-- section: admit
-- What is held may settle on any day from now on, so it has to leave room on each of them: where
-- every clock is right there is one, today. An unknown amount holds all that is left.
INSERT INTO calls (id, state, day, held, cost, began, ends, process, name, feature)
SELECT :id, 0, day_of(:now), :held, coalesce(:cost, cap - paid), :now, :now + :patience,
  :process, :name, :feature
FROM (
  SELECT cap, holders, held AS held_by_all, unbounded,
    (SELECT coalesce(max(paid), 0) FROM days WHERE day >= day_of(:now)) AS paid
  FROM account
) AS sums
WHERE unbounded = 0 AND (:held IS NOT NULL OR holders = 0) AND paid + held_by_all < cap
ON CONFLICT (id) DO NOTHING;

-- section: answer
SELECT (SELECT state FROM calls WHERE id = :id) AS state, day_of(:now) AS today,
  (SELECT coalesce(max(paid), 0) FROM days WHERE day >= day_of(:now)) AS paid, cap,
  cost_per_byte, cost_per_call, tokens_per_byte, tokens_per_call
FROM account;

-- section: settle
-- A call whose admission the store forgot, or never saw, is written by its settlement. One that
-- was lost is corrected where it was counted: on a later day nothing was held for it.
INSERT INTO calls (id, state, day, held, cost, began, ends, process, name, feature)
SELECT :id, :state, day_of(:now), 0, :cost, :now, :now, :process, :name, :feature
WHERE :state > 0
ON CONFLICT (id) DO UPDATE SET
  state = excluded.state,
  day = CASE
    WHEN calls.state = 1 OR calls.day > excluded.day THEN calls.day ELSE excluded.day END,
  cost = CASE WHEN excluded.state = 1 THEN calls.cost ELSE excluded.cost END
WHERE calls.state < excluded.state;

-- section: learn
-- A settlement without a reply teaches nothing: its maxima are null.
UPDATE account SET
  cost_per_byte = CASE WHEN cost_per_byte < :cost_per_byte THEN :cost_per_byte ELSE cost_per_byte END,
  cost_per_call = CASE WHEN cost_per_call < :cost_per_call THEN :cost_per_call ELSE cost_per_call END,
  tokens_per_byte =
    CASE WHEN tokens_per_byte < :tokens_per_byte THEN :tokens_per_byte ELSE tokens_per_byte END,
  tokens_per_call =
    CASE WHEN tokens_per_call < :tokens_per_call THEN :tokens_per_call ELSE tokens_per_call END
WHERE cost_per_byte < :cost_per_byte OR cost_per_call < :cost_per_call
  OR tokens_per_byte < :tokens_per_byte OR tokens_per_call < :tokens_per_call;
INSERT INTO features (feature) SELECT :feature WHERE :tokens_per_call IS NOT NULL
ON CONFLICT (feature) DO NOTHING;

-- section: account
SELECT version, cap FROM account;

-- section: look
SELECT cap, holders, held, coalesce(paid, 0) AS paid, coalesce(lost, 0) AS lost
FROM account LEFT JOIN days ON day = day_of(:now);

-- section: known
SELECT cost_per_byte, cost_per_call, tokens_per_byte, tokens_per_call, feature
FROM account LEFT JOIN features ON true;

-- section: processes
SELECT DISTINCT process FROM calls WHERE state = 0;

-- section: end
-- The calls of a process that is dead end at once.
UPDATE calls SET ends = :now WHERE state = 0 AND process = :process;

-- section: table
SELECT name, feature, state, count(*), sum(CASE WHEN state = 0 THEN held ELSE cost END),
  sum(CASE WHEN state = 0 AND held IS NULL THEN 1 ELSE 0 END), :now - min(began)
FROM calls WHERE state = 0 OR day = day_of(:now) GROUP BY name, feature, state
ORDER BY name, feature, state;

-- section: books
-- What calls came to, by the name of who made them, for as many days up to today. What they paid
-- beyond what they held is what the cap may be passed by, besides one call.
SELECT day, name, count(*) AS calls, sum(coalesce(held, cost)) AS held,
  sum(CASE WHEN state = 0 THEN coalesce(held, cost) ELSE 0 END) AS in_flight,
  sum(CASE WHEN state > 0 THEN cost ELSE 0 END) AS paid,
  sum(CASE WHEN state = 1 THEN cost ELSE 0 END) AS lost,
  max(CASE WHEN state > 0 THEN cost ELSE 0 END) AS dearest,
  sum(CASE WHEN state > 1 AND cost > held THEN cost - held ELSE 0 END) AS beyond
FROM calls WHERE day >= day_of(:now - (:days - 1) * 86400) GROUP BY day, name ORDER BY day, name;

-- section: set_cap
UPDATE account SET cap = :cap;

-- section: prune
-- The only way in which a row that has ended goes. Today is the last of the days that are kept.
SELECT count(*) FROM calls WHERE state > 0 AND day < day_of(:now - (:days - 1) * 86400);
DELETE FROM calls WHERE state > 0 AND day < day_of(:now - (:days - 1) * 86400);
DELETE FROM days WHERE day < day_of(:now - (:days - 1) * 86400);
