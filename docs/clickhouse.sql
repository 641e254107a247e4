-- The table that receives zel's event documents in ClickHouse (18.16 and
-- later). Point the tracing client at it with
--   ZEL_TRACE_ENDPOINT='http://HOST:8123/?query=INSERT%20INTO%20zel.events%20FORMAT%20JSONEachRow'
-- Each document is one row: every member of either kind (device event,
-- error event) is a String column, and the members a document lacks take
-- their default, ''. "arrived" is the server's time of the insert.
--
-- Sorted for the questions a support team asks: what happened for one event
-- name, for one device (vid, pid), over time; partitioned by month so that
-- old months can be dropped whole (ALTER TABLE zel.events DROP PARTITION).
CREATE DATABASE IF NOT EXISTS zel;

CREATE TABLE IF NOT EXISTS zel.events
(
    arrived     DateTime MATERIALIZED now(),
    zelVersion  String DEFAULT '',
    eventType   String DEFAULT '',
    event       String DEFAULT '',
    errorCode   String DEFAULT '',
    message     String DEFAULT '',
    productName String DEFAULT '',
    vid         String DEFAULT '',
    pid         String DEFAULT '',
    vmid        String DEFAULT '',
    redirtype   String DEFAULT '',
    class       String DEFAULT '',
    status      String DEFAULT ''
)
ENGINE = MergeTree
PARTITION BY toYYYYMM(arrived)
ORDER BY (event, vid, pid, arrived);
