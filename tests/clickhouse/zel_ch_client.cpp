// SPDX-License-Identifier: MIT

// The client side of the ClickHouse stage (scripts/ci-clickhouse.sh): sends
// event documents through ZelClientTracker and the tracing client, and
// checks what the server stored.
//
//   zel_ch_client send --client C (--count N | --seconds S) [--rate R]
//                      [--version V] [--times FILE]
//       Sends device and error events numbered 0, 1, ... through the
//       process's tracker (registered with Init(V), ended with Uninit()):
//       N of them, or as many as fit in S seconds, R per second (0: as fast
//       as possible). Every "message" starts "<C>:<n>:". With --times, the
//       monotonic time of every post is written to FILE ("<n> <ms>" lines).
//       With --poison K, document K is instead one with a member that is no
//       column of the table, posted straight to a tracing client of the
//       tracker's name (it shares the tracker's sender). With --wait-spool
//       DIR, waits (at most 120 s) before Uninit() until DIR holds no spool
//       file waiting or claimed.
//       Prints "posted=<n> maxrss_kb=<kb> dropped=<documents the tracing
//       client dropped>".
//   zel_ch_client check --clients K --count N --version V
//                      [--lost-answers-allowed]
//       Reads rows from standard input, one per stored document in storage
//       order: "<part>\t" and the hexadecimal texts of the twelve columns
//       zelVersion, eventType, event, errorCode, message, productName, vid,
//       pid, vmid, redirtype, class, status. Checks that every document
//       0..N-1 of clients 0..K-1 arrived with every member exactly as sent,
//       in posting order per client, and none twice, except (with
//       --lost-answers-allowed) one batch per client sent again after its
//       answer was lost. Prints a report; exits 1 on any violation.
//   zel_ch_client poll --url URL --version V --seconds S --out FILE
//       Every 100 ms for S seconds asks the server for the highest number
//       stored per client of run V and appends "<ms> <client> <n>" to FILE
//       when it grew.
//   zel_ch_client latency --polls FILE --times FILE...
//       Prints the 50th, 99th and largest time from a post to the first
//       poll that saw it stored, over every document that was seen.
#include <curl/curl.h>
#include <dirent.h>
#include <json/json.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tracer/tracer_client.h"
#include "utils/logger.h"
#include "utils/zel_client_tracker.h"

namespace {

using Clock = std::chrono::steady_clock;

long long NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
      .count();
}

// The command line's "--name value" options and "--flag" flags.
std::map<std::string, std::vector<std::string>> Options(int argc, char** argv) {
  std::map<std::string, std::vector<std::string>> options;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.compare(0, 2, "--") != 0) continue;
    std::vector<std::string>& values = options[arg.substr(2)];
    // Every word up to the next option is a value: "--times a b c".
    while (i + 1 < argc && std::string(argv[i + 1]).compare(0, 2, "--") != 0) {
      values.push_back(argv[++i]);
    }
    if (values.empty()) values.push_back("");
  }
  return options;
}

std::string Option(std::map<std::string, std::vector<std::string>>& options,
                   const std::string& name, const std::string& fallback = "") {
  return options.count(name) != 0 ? options[name].front() : fallback;
}

// The text after "<client>:<n>:" in the message of document n: plain text,
// invalid UTF-8, control bytes, quotes and other characters JSON escapes.
std::string MessageTail(int n) {
  switch (n % 5) {
    case 1:
      return "bad utf8 \xff\xfe end \xc3";
    case 2: {
      static const char kControl[] = "ctl \x01\x1f\x7f tab\tnl\ncr\r nul\0!";
      return std::string(kControl, sizeof(kControl) - 1);
    }
    case 3:
      return "quotes \"q\" back\\slash caf\xc3\xa9 {[,]}";
    default:
      return n % 10 == 0 ? "failed: device busy" : "ok";
  }
}

// The device of document n (an even n) of client c.
zel::ZelClientTrackDevice Device(int c, int n) {
  return zel::ZelClientTrackDevice{static_cast<uint16_t>(0x1000 + c),
                                   static_cast<uint16_t>(n % 7 + 1),
                                   "Disk " + std::to_string(n % 3) + " \"USB\"",
                                   static_cast<uint16_t>(n % 3 == 0 ? 2 : 16),
                                   {0x08, static_cast<uint16_t>(n % 4)},
                                   static_cast<uint16_t>(n % 5),
                                   static_cast<uint32_t>(n)};
}

void Post(zel::ZelClientTracker* tracker, int c, int n) {
  const std::string message = std::to_string(c) + ":" + std::to_string(n) + ":" + MessageTail(n);
  if (n % 2 == 0) {
    zel::ZelClientTrackDevice device = Device(c, n);
    tracker->SendTrackDevice(n % 4 == 0 ? "attach" : "detach", device, message);
  } else {
    tracker->SendTrackError("redirect", "E_" + std::to_string(n % 13), message);
  }
}

int Send(std::map<std::string, std::vector<std::string>>& options) {
  const int client = std::stoi(Option(options, "client", "0"));
  const long count = std::stol(Option(options, "count", "-1"));
  const double seconds = std::stod(Option(options, "seconds", "0"));
  const double rate = std::stod(Option(options, "rate", "0"));
  const std::string timesPath = Option(options, "times");
  zel_set_log_level(-1);  // no debug line per post
  zel::ZelClientTracker* tracker = zel::ZelClientTracker::GetInstance();
  tracker->Init(Option(options, "version", "e2e"));
  const long poison = std::stol(Option(options, "poison", "-1"));
  TracerClient* raw = poison >= 0 ? TracerClient::registerClient("zelModule") : nullptr;

  std::vector<long long> times;
  const Clock::time_point start = Clock::now();
  const Clock::time_point end =
      start + std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
  int n = 0;
  for (;; ++n) {
    if (count >= 0 && n >= count) break;
    if (count < 0 && Clock::now() >= end) break;
    if (rate > 0) {
      // A steady pace: document n goes at start + n / rate.
      std::this_thread::sleep_until(
          start + std::chrono::microseconds(static_cast<long long>(n * 1e6 / rate)));
    }
    times.push_back(NowMs());
    if (n == poison && raw != nullptr) {
      raw->postTrace("{\"zelVersion\":\"" + Option(options, "version", "e2e") +
                     "\",\"message\":\"poison\",\"notAColumn\":\"x\"}");
    } else {
      Post(tracker, client, n);
    }
  }
  const std::string spool = Option(options, "wait-spool");
  if (!spool.empty()) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
    while (Clock::now() < deadline) {
      bool waiting = false;
      if (DIR* dir = opendir(spool.c_str())) {
        while (const dirent* entry = readdir(dir)) {
          const std::string name = entry->d_name;
          if (name.rfind("spool-", 0) == 0 || name.rfind("claimed-", 0) == 0) waiting = true;
        }
        closedir(dir);
      }
      if (!waiting) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  if (raw != nullptr) raw->deregister();
  tracker->Uninit();
  if (!timesPath.empty()) {
    std::ofstream out(timesPath);
    out << "client " << client << "\n";
    for (std::size_t i = 0; i < times.size(); ++i) out << i << " " << times[i] << "\n";
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("posted=%d maxrss_kb=%ld dropped=%llu\n", n, usage.ru_maxrss,
              TracerClient::droppedDocuments());
  return 0;
}

// ---------------------------------------------------------------------------
// check

const char* const kColumns[] = {"zelVersion", "eventType",   "event", "errorCode",
                                "message",    "productName", "vid",   "pid",
                                "vmid",       "redirtype",   "class", "status"};
constexpr std::size_t kColumnCount = sizeof(kColumns) / sizeof(kColumns[0]);

std::string Unhex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// What a document of client c numbered n should store in each column: the
// texts as the tracker sends them, after JSON's own round trip (invalid
// UTF-8 arrives as U+FFFD), and "" for members the document does not have.
std::vector<std::string> Expected(const std::string& version, int c, int n) {
  // The tracker's document, built by a tracker of this process whose
  // client writes into a string: a file client on a scratch file.
  static const std::string path = [] {
    char name[] = "/tmp/zel_ch_check_XXXXXX";
    const int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    return std::string(name);
  }();
  static zel::ZelClientTracker* tracker = [] {
    setenv("ZEL_TRACE_ENDPOINT", ("file://" + path).c_str(), 1);
    zel_set_log_level(-1);
    return new zel::ZelClientTracker();
  }();
  static std::string lastVersion;
  if (version != lastVersion) {
    tracker->Init(version);
    lastVersion = version;
  }
  std::ofstream(path, std::ios::trunc).close();
  Post(tracker, c, n);
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  Json::Value document;
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!Json::parseFromStream(builder, text, &document, &errors)) {
    std::fprintf(stderr, "check: cannot parse the expected document: %s\n", errors.c_str());
    std::exit(2);
  }
  std::vector<std::string> columns;
  for (const char* column : kColumns) {
    columns.push_back(document.isMember(column) ? document[column].asString() : "");
  }
  return columns;
}

int Check(std::map<std::string, std::vector<std::string>>& options) {
  const int clients = std::stoi(Option(options, "clients", "1"));
  const int count = std::stoi(Option(options, "count", "0"));
  const std::string version = Option(options, "version", "e2e");
  const bool lostAnswersAllowed = options.count("lost-answers-allowed") != 0;

  struct Row {
    long long block;
    int n;
  };
  std::vector<std::vector<Row>> rows(static_cast<std::size_t>(clients));
  int violations = 0;
  auto violation = [&violations](const std::string& text) {
    if (++violations <= 20) std::printf("VIOLATION %s\n", text.c_str());
  };
  std::string line;
  long long total = 0;
  while (std::getline(std::cin, line)) {
    std::vector<std::string> fields;
    std::stringstream split(line);
    std::string field;
    while (std::getline(split, field, '\t')) fields.push_back(field);
    while (fields.size() < kColumnCount + 1) fields.push_back("");
    ++total;
    // "all_<first block>_<last block>_<level>": a level above 0 means that
    // parts were merged and the order of arrival is no longer known.
    const std::string& part = fields[0];
    const std::size_t a = part.find('_');
    const std::size_t b = part.find('_', a + 1);
    const std::size_t l = part.rfind('_');
    if (a == std::string::npos || b == std::string::npos || part.substr(l + 1) != "0") {
      violation("part " + part + " was merged: the order cannot be checked");
    }
    const long long block = std::stoll(part.substr(a + 1, b - a - 1));
    std::vector<std::string> stored;
    for (std::size_t i = 1; i <= kColumnCount; ++i) stored.push_back(Unhex(fields[i]));
    const std::string& message = stored[4];
    const std::size_t colon1 = message.find(':');
    const std::size_t colon2 = message.find(':', colon1 + 1);
    if (colon1 == std::string::npos || colon2 == std::string::npos) {
      violation("a row without a document number: " + message.substr(0, 40));
      continue;
    }
    const int c = std::stoi(message.substr(0, colon1));
    const int n = std::stoi(message.substr(colon1 + 1, colon2 - colon1 - 1));
    if (c < 0 || c >= clients || n < 0 || n >= count) {
      violation("an unknown document " + message.substr(0, colon2));
      continue;
    }
    const std::vector<std::string> expected = Expected(version, c, n);
    for (std::size_t i = 0; i < kColumnCount; ++i) {
      if (stored[i] != expected[i]) {
        violation("client " + std::to_string(c) + " document " + std::to_string(n) + ": " +
                  kColumns[i] + " differs");
      }
    }
    rows[static_cast<std::size_t>(c)].push_back(Row{block, n});
  }

  long long duplicates = 0;
  for (int c = 0; c < clients; ++c) {
    std::vector<Row>& r = rows[static_cast<std::size_t>(c)];
    // Storage order: by the block (one insert each), and within a block as
    // read (the order of the request's body).
    std::stable_sort(r.begin(), r.end(),
                     [](const Row& x, const Row& y) { return x.block < y.block; });
    std::vector<int> seen(static_cast<std::size_t>(count), 0);
    int expectedNext = 0;  // the next new document in posting order
    int resent = 0;        // runs of documents stored again
    bool inRun = false;
    for (const Row& row : r) {
      int& times = seen[static_cast<std::size_t>(row.n)];
      if (times++ > 0) {
        ++duplicates;
        if (!inRun) ++resent;
        inRun = true;
        continue;
      }
      inRun = false;
      if (row.n != expectedNext) {
        violation("client " + std::to_string(c) + ": document " + std::to_string(row.n) +
                  " stored where " + std::to_string(expectedNext) + " was due");
      }
      expectedNext = row.n + 1;
    }
    int missing = 0;
    for (int v : seen) missing += v == 0 ? 1 : 0;
    if (missing > 0) {
      violation("client " + std::to_string(c) + ": " + std::to_string(missing) +
                " document(s) missing");
    }
    if (resent > (lostAnswersAllowed ? 1 : 0)) {
      violation("client " + std::to_string(c) + ": " + std::to_string(resent) +
                " run(s) of documents stored twice");
    }
  }
  std::printf("check: %lld rows, %d clients x %d documents, %lld stored twice, %d violation(s)\n",
              total, clients, count, duplicates, violations);
  return violations == 0 ? 0 : 1;
}

// ---------------------------------------------------------------------------
// poll and latency

size_t Collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

int Poll(std::map<std::string, std::vector<std::string>>& options) {
  const std::string url = Option(options, "url");
  const std::string version = Option(options, "version");
  const double seconds = std::stod(Option(options, "seconds", "10"));
  std::ofstream out(Option(options, "out"));
  const std::string query =
      "SELECT splitByChar(':', message)[1] AS c, max(toUInt64(splitByChar(':', message)[2])) "
      "FROM zel.events WHERE zelVersion = '" +
      version + "' GROUP BY c FORMAT TabSeparated";
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, query.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Collect);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 2000L);
  std::map<std::string, long long> highest;
  const Clock::time_point end =
      Clock::now() + std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
  while (Clock::now() < end) {
    const Clock::time_point next = Clock::now() + std::chrono::milliseconds(100);
    std::string answer;
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer);
    long status = 0;
    if (curl_easy_perform(easy) == CURLE_OK) {
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    }
    const long long now = NowMs();
    if (status == 200) {
      std::stringstream lines(answer);
      std::string c;
      long long n = 0;
      while (lines >> c >> n) {
        if (highest.count(c) == 0 || n > highest[c]) {
          highest[c] = n;
          out << now << " " << c << " " << n << "\n";
        }
      }
      out.flush();
    }
    std::this_thread::sleep_until(next);
  }
  curl_easy_cleanup(easy);
  return 0;
}

int Latency(std::map<std::string, std::vector<std::string>>& options) {
  // Per client: the polls' (time, highest number seen), in time order.
  std::map<std::string, std::vector<std::pair<long long, long long>>> polls;
  {
    std::ifstream in(Option(options, "polls"));
    long long t = 0;
    long long n = 0;
    std::string c;
    while (in >> t >> c >> n) polls[c].emplace_back(t, n);
  }
  std::vector<long long> latencies;
  long long unseen = 0;
  for (const std::string& path : options["times"]) {
    std::ifstream in(path);
    std::string word;
    std::string c;
    in >> word >> c;
    const auto& seen = polls[c];
    std::size_t p = 0;
    long long n = 0;
    long long t = 0;
    while (in >> n >> t) {
      // Numbers grow with time: the first poll that saw n or more.
      while (p < seen.size() && seen[p].second < n) ++p;
      if (p == seen.size()) {
        ++unseen;
        continue;
      }
      latencies.push_back(std::max(0LL, seen[p].first - t));
    }
  }
  std::sort(latencies.begin(), latencies.end());
  auto at = [&latencies](double q) {
    if (latencies.empty()) return -1LL;
    return latencies[std::min(latencies.size() - 1,
                              static_cast<std::size_t>(q * static_cast<double>(latencies.size())))];
  };
  std::printf("latency_ms p50=%lld p99=%lld max=%lld seen=%zu unseen=%lld\n", at(0.5), at(0.99),
              latencies.empty() ? -1LL : latencies.back(), latencies.size(), unseen);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: zel_ch_client send|check|poll|latency [options]\n");
    return 2;
  }
  std::map<std::string, std::vector<std::string>> options = Options(argc, argv);
  const std::string mode = argv[1];
  if (mode == "send") return Send(options);
  if (mode == "check") return Check(options);
  if (mode == "poll") return Poll(options);
  if (mode == "latency") return Latency(options);
  std::fprintf(stderr, "zel_ch_client: unknown mode %s\n", mode.c_str());
  return 2;
}
