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

-- The endpoint for fleets of many quiet devices: a Buffer table in front of
-- zel.events. Each insert into zel.events makes a part on disk; a fleet of
-- devices sending one document each makes as many inserts, far more than a
-- MergeTree table takes well. The buffer keeps rows in memory in 4 layers
-- and writes a layer to zel.events when it is 10 s old, holds 1,000,000
-- rows or 100 MB, or is 1 s old with 10,000 rows and 10 MB: at most about
-- 0.4 parts a second at a steady pace, whatever the number of inserts.
-- Point the fleet at
--   ZEL_TRACE_ENDPOINT='http://HOST:8123/?query=INSERT%20INTO%20zel.events_buffer%20FORMAT%20JSONEachRow'
-- Rows still in the buffer are lost if the server stops abruptly (a crash,
-- SIGKILL); a clean stop writes them. Queries of zel.events_buffer see
-- both the buffered rows and zel.events. "arrived" is set when the buffer
-- writes the rows (at most 10 s after the insert).
CREATE TABLE IF NOT EXISTS zel.events_buffer
(
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
ENGINE = Buffer(zel, events, 4, 1, 10, 10000, 1000000, 10000000, 100000000);
