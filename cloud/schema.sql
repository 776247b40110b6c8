-- The state of the reference cloud. Created at each start, so each statement can be repeated.
-- Texts that devices send are bytea: PostgreSQL's text cannot contain a zero byte.

-- Secrets are stored as SHA-256 hashes. Times are seconds since the Unix epoch.
CREATE TABLE IF NOT EXISTS clients (
  client_id text PRIMARY KEY,
  secret_hash bytea NOT NULL
);
CREATE TABLE IF NOT EXISTS codes (
  hash bytea PRIMARY KEY,
  client_id text NOT NULL REFERENCES clients,
  device text NOT NULL,
  expires_at bigint NOT NULL
);
CREATE TABLE IF NOT EXISTS refresh_tokens (
  hash bytea PRIMARY KEY,
  client_id text NOT NULL REFERENCES clients,
  device text NOT NULL
);
CREATE TABLE IF NOT EXISTS access_tokens (
  hash bytea PRIMARY KEY,
  device text NOT NULL,
  expires_at bigint NOT NULL
);
CREATE INDEX IF NOT EXISTS access_tokens_by_expiry ON access_tokens (expires_at);

-- Accepted batches of points, on their way to VictoriaMetrics. A row is kept for an hour to recognize
-- repeated points; its samples are emptied as soon as VictoriaMetrics has them on disk.
CREATE TABLE IF NOT EXISTS journal (
  id bigserial PRIMARY KEY,
  device text NOT NULL,
  received timestamptz NOT NULL DEFAULT now(),
  -- Of the points' end times.
  oldest bigint NOT NULL,
  newest bigint NOT NULL,
  -- A pair of 64-bit numbers for each point (cloud/points.py).
  identities bytea NOT NULL,
  -- Lines for VictoriaMetrics' /api/v1/import.
  samples bytea NOT NULL,
  -- The start time of the VictoriaMetrics process that has received the samples.
  sent_to bigint,
  sent_at timestamptz,
  settled boolean NOT NULL DEFAULT false
);
CREATE INDEX IF NOT EXISTS journal_by_time ON journal (device, newest);
CREATE INDEX IF NOT EXISTS journal_unsettled ON journal (id) WHERE NOT settled;
CREATE INDEX IF NOT EXISTS journal_by_age ON journal (received) WHERE settled;

-- Points that VictoriaMetrics cannot hold exactly, for example texts.
CREATE TABLE IF NOT EXISTS points (
  id bigserial PRIMARY KEY,
  device text NOT NULL,
  received timestamptz NOT NULL DEFAULT now(),
  name bytea NOT NULL,
  -- A JSON object.
  labels bytea NOT NULL,
  start_time bigint NOT NULL,
  end_time bigint NOT NULL,
  -- As in the request, for example "int64Value" and its JSON.
  type text NOT NULL,
  value bytea NOT NULL
);
CREATE INDEX IF NOT EXISTS points_by_time ON points (device, end_time);

CREATE TABLE IF NOT EXISTS logs (
  id bigserial PRIMARY KEY,
  device text NOT NULL,
  received timestamptz NOT NULL DEFAULT now(),
  -- structuredLogs or writeLogs, as in the request's path.
  kind text NOT NULL,
  type_url bytea NOT NULL,
  -- Decoded.
  value bytea NOT NULL,
  -- Of writeLogs only: the time of recording, and the properties as a JSON object.
  device_time bigint,
  properties bytea,
  -- Of the whole request.
  digest bytea NOT NULL,
  -- Whether the device is known to have received the response, so that it does not repeat the request.
  delivered boolean NOT NULL DEFAULT false
);
CREATE INDEX IF NOT EXISTS logs_by_device ON logs (device, id);
