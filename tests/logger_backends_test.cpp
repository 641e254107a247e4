// SPDX-License-Identifier: MIT

// The level the Logger hands to a LevelledBackend and the tag fallback (on
// every platform), and on POSIX the backends of the operating system's logs:
// the journal's native protocol (against a socket of the test's own that
// parses it, and against a real journald started privately when it can
// run), the syslog protocol, and dropping and counting, never blocking, when
// a socket is full.
#include "utils/log_levelled_backend.h"

#if !defined(ZEL_TEST_ON_WINDOWS)
#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/test_util.h"
#include "utils/logger.h"
#if !defined(ZEL_TEST_ON_WINDOWS)
#include "utils/log_journal_backend.h"
#include "utils/log_syslog_backend.h"
#endif

namespace {

using zel_test::TempDir;
using zel_test::WaitFor;

// A LevelledBackend that keeps each line and the level it was handed.
class LevelRecorder : public zel::LevelledBackend {
 public:
  using zel::LevelledBackend::Log;
  void Log(const std::string& line, int level) override {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.emplace_back(line, level);
  }
  std::vector<std::pair<std::string, int>> entries() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::pair<std::string, int>> entries_;
};

#if !defined(ZEL_TEST_ON_WINDOWS)
// A datagram socket of the test's own bound at a path in a fresh directory:
// what a journal or syslog daemon would listen on.
class DatagramReceiver {
 public:
  // `receiveBuffer` > 0 sets SO_RCVBUF (the kernel takes at least its own
  // minimum).
  explicit DatagramReceiver(int receiveBuffer = 0) {
    path_ = dir_.path() + "sock";
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) throw std::runtime_error("socket");
    if (receiveBuffer > 0) {
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path_.c_str());
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("bind " + path_);
    }
  }
  ~DatagramReceiver() { Close(); }
  DatagramReceiver(const DatagramReceiver&) = delete;
  DatagramReceiver& operator=(const DatagramReceiver&) = delete;

  const std::string& path() const { return path_; }

  // The next datagram, waiting up to `timeoutMs`; false when none came.
  bool Receive(std::string* datagram, int timeoutMs = 10000) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return false;
    std::vector<char> buf(1 << 20);
    const ssize_t n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
    if (n < 0) return false;
    datagram->assign(buf.data(), static_cast<std::size_t>(n));
    return true;
  }

  // The number of datagrams waiting, read without waiting.
  int Drain() {
    int count = 0;
    std::string datagram;
    while (Receive(&datagram, 0)) ++count;
    return count;
  }

  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  TempDir dir_;
  std::string path_;
  int fd_ = -1;
};

// Parses one datagram of the journal's native protocol into its fields
// (each key once); fails the test on a malformed datagram.
std::map<std::string, std::string> ParseJournalEntry(const std::string& datagram) {
  std::map<std::string, std::string> fields;
  std::size_t pos = 0;
  while (pos < datagram.size()) {
    const std::size_t end = datagram.find_first_of("=\n", pos);
    if (end == std::string::npos) {
      ADD_FAILURE() << "field without end at " << pos;
      break;
    }
    const std::string key = datagram.substr(pos, end - pos);
    if (datagram[end] == '=') {
      const std::size_t valueEnd = datagram.find('\n', end + 1);
      if (valueEnd == std::string::npos) {
        ADD_FAILURE() << "value of " << key << " without its line end";
        break;
      }
      fields[key] = datagram.substr(end + 1, valueEnd - end - 1);
      pos = valueEnd + 1;
    } else {
      // KEY\n, 64-bit little-endian length, value, \n
      if (end + 9 > datagram.size()) {
        ADD_FAILURE() << "length of " << key << " cut";
        break;
      }
      uint64_t size = 0;
      for (int i = 7; i >= 0; --i) {
        size = (size << 8) | static_cast<unsigned char>(datagram[end + 1 + i]);
      }
      const std::size_t valueStart = end + 9;
      if (valueStart + size + 1 > datagram.size() || datagram[valueStart + size] != '\n') {
        ADD_FAILURE() << "value of " << key << " does not fit its length " << size;
        break;
      }
      fields[key] = datagram.substr(valueStart, size);
      pos = valueStart + size + 1;
    }
  }
  return fields;
}
#endif

// Starts the Logger with its files in `dir`.
void StartLog(const TempDir& dir) {
  zel_set_log_path(dir.path().c_str());
  zel::Logger::GetInstance();
}

// ---------------------------------------------------------------------------
// The level, and the tag for lines without one.

TEST(LoggerBackendsTest, LevelledBackendIsHandedTheLevelOfEachLine) {
  TempDir dir;
  StartLog(dir);
  static LevelRecorder recorder;
  zel::Logger::GetInstance()->RegisterBackend(&recorder);
  // Tags that disagree with the levels: the level given wins.
  log_print(0, 1, "[%s][%s %s %d] Debug:zero\n", "", "/t.cpp", "f", 1);
  log_print(1, 1, "[%s][%s %s %d] Error:one\n", "", "/t.cpp", "f", 2);
  log_print(3, 1, "[%s][%s %s %d] Error:three\n", "", "/t.cpp", "f", 3);
  log_print(4, 1, "four\n");
  log_print(9, 1, "nine\n");
  log_print(-5, 1, "minus five\n");
  zel::Logger::GetInstance()->Log("direct\n", 1, true);
  log_print(0, 0, "not forwarded\n");
  zel_log_flush();
  const auto entries = recorder.entries();
  ASSERT_EQ(entries.size(), 7u);
  const int expected[] = {0, 1, 3, 4, 9, -5, 1};
  for (std::size_t i = 0; i < entries.size(); ++i) {
    SCOPED_TRACE(entries[i].first);
    EXPECT_EQ(entries[i].second, expected[i]);
  }
  EXPECT_NE(entries[3].first.find("four\n"), std::string::npos);
  EXPECT_EQ(entries[6].first, "direct\n");
}

TEST(LoggerBackendsTest, LevelsBeyondSixteenBitsArriveHeldAtTheNearerEnd) {
  TempDir dir;
  StartLog(dir);
  static LevelRecorder recorder;
  zel::Logger::GetInstance()->RegisterBackend(&recorder);
  log_print(100000, 1, "high\n");
  log_print(-100000, 1, "low\n");
  log_print(32767, 1, "top\n");
  zel_log_flush();
  const auto entries = recorder.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].second, 32767);
  EXPECT_EQ(entries[1].second, -32768);
  EXPECT_EQ(entries[2].second, 32767);
}

TEST(LoggerBackendsTest, PlainAndLevelledBackendsBothReceiveEveryForwardedLine) {
  TempDir dir;
  StartLog(dir);
  static zel_test::LineRecorder plain;
  static LevelRecorder levelled;
  zel::Logger::GetInstance()->RegisterBackend(&plain);
  zel::Logger::GetInstance()->RegisterBackend(&levelled);
  log_print(0, 1, "[%s][%s %s %d] Error:both\n", "", "/t.cpp", "f", 1);
  zel_log_flush();
  ASSERT_EQ(plain.lines().size(), 1u);
  ASSERT_EQ(levelled.entries().size(), 1u);
  EXPECT_EQ(plain.lines()[0], levelled.entries()[0].first);
}

TEST(LoggerBackendsTest, LineWithoutALevelTakesTheLevelOfItsTag) {
  LevelRecorder recorder;
  zel::LogBackend* plain = &recorder;  // what code that forwards lines itself sees
  const struct {
    const char* line;
    int level;  // what the backend is given: the tag's, or 2 without one
  } cases[] = {
      {"[3-7 09:05:01.042][tid:1234] [][/looper.cpp zel::Looper::Stop 137] Error:x \n\n", 0},
      {"[3-7 09:05:01.042][tid:1234] [][/looper.cpp zel::Looper::Stop 137] Debug:x\n", 3},
      {"[3-7 09:05:01.042][tid:1234] [mod][/a.cpp f 1] Error:x\n", 0},
      {"[][/a.cpp f 1] Debug:x\n", 3},
      {"Error:no call site\n", 0},
      {"[3-7 09:05:01.042][tid:1234] Debug:no call site\n", 3},
      {"[3-7 09:05:01.042][tid:1234] [][/a.cpp f 1] Warning:x\n", 2},
      {"[3-7 09:05:01.042][tid:1234] [][/a.cpp f 1] text Error: later\n", 2},
      {"", 2},
      {"plain text\n", 2},
  };
  for (const auto& c : cases) plain->Log(c.line);
  const auto entries = recorder.entries();
  ASSERT_EQ(entries.size(), sizeof(cases) / sizeof(cases[0]));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    SCOPED_TRACE(cases[i].line);
    EXPECT_EQ(entries[i].first, cases[i].line);
    EXPECT_EQ(entries[i].second, cases[i].level);
    EXPECT_EQ(zel::LevelledBackend::LevelFromTag(cases[i].line), cases[i].level);
  }
}

TEST(LoggerBackendsTest, LevelsMapToSyslogSeverities) {
  EXPECT_EQ(zel::LevelledBackend::SyslogPriority(0), 3);
  EXPECT_EQ(zel::LevelledBackend::SyslogPriority(1), 4);
  EXPECT_EQ(zel::LevelledBackend::SyslogPriority(3), 7);
  EXPECT_EQ(zel::LevelledBackend::SyslogPriority(4), 5);
  for (int level : {-1, 2, 5, 9, 32767}) {
    SCOPED_TRACE(level);
    EXPECT_EQ(zel::LevelledBackend::SyslogPriority(level), 6);
  }
}

#if !defined(ZEL_TEST_ON_WINDOWS)
// ---------------------------------------------------------------------------
// The journal's native protocol, parsed by the test's own socket.

TEST(JournalBackendTest, EntryCarriesTheFieldsOfTheLine) {
  TempDir dir;
  StartLog(dir);
  DatagramReceiver journal;
  static std::unique_ptr<zel::JournalBackend> backend;
  backend = std::make_unique<zel::JournalBackend>(journal.path(), "zel-test");
  zel::Logger::GetInstance()->RegisterBackend(backend.get());
  log_print(0, 1, "[%s][%s %s %d] Error:disk %s gone \n\n", "", "/device.cpp",
            "zel::Device::Remove", 321, "E:");
  zel_log_flush();
  std::string datagram;
  ASSERT_TRUE(journal.Receive(&datagram));
  const auto fields = ParseJournalEntry(datagram);
  EXPECT_EQ(fields.at("MESSAGE"), "[][/device.cpp zel::Device::Remove 321] Error:disk E: gone ");
  EXPECT_EQ(fields.at("PRIORITY"), "3");
  EXPECT_EQ(fields.at("CODE_FILE"), "device.cpp");
  EXPECT_EQ(fields.at("CODE_FUNC"), "zel::Device::Remove");
  EXPECT_EQ(fields.at("CODE_LINE"), "321");
  EXPECT_EQ(fields.at("TID"), std::to_string(zel_test::OsThreadId()));
  EXPECT_EQ(fields.at("SYSLOG_IDENTIFIER"), "zel-test");
  EXPECT_EQ(fields.size(), 7u);
  EXPECT_EQ(backend->Sent(), 1u);
  EXPECT_EQ(backend->Dropped(), 0u);
}

TEST(JournalBackendTest, PriorityFollowsTheLevelOfEachLine) {
  TempDir dir;
  StartLog(dir);
  DatagramReceiver journal;
  static std::unique_ptr<zel::JournalBackend> backend;
  backend = std::make_unique<zel::JournalBackend>(journal.path());
  zel::Logger::GetInstance()->RegisterBackend(backend.get());
  const int levels[] = {0, 1, 3, 4, 2, 9};
  const char* priorities[] = {"3", "4", "7", "5", "6", "6"};
  for (int level : levels) log_print(level, 1, "[%s][%s %s %d] Debug:x\n", "", "/a.cpp", "f", 1);
  zel_log_flush();
  for (const char* priority : priorities) {
    std::string datagram;
    ASSERT_TRUE(journal.Receive(&datagram));
    EXPECT_EQ(ParseJournalEntry(datagram).at("PRIORITY"), priority);
  }
}

TEST(JournalBackendTest, MultiLineTextTravelsInTheLengthPrefixedForm) {
  DatagramReceiver journal;
  zel::JournalBackend backend(journal.path(), "zel-test");
  const std::string text = "[][/a.cpp f 7] Error:first\nsecond\n\tthird";
  backend.Log("[3-7 09:05:01.042][tid:77] " + text + "\n\n", 0);
  std::string datagram;
  ASSERT_TRUE(journal.Receive(&datagram));
  std::string lengthForm = "MESSAGE\n";
  for (int i = 0; i < 8; ++i)
    lengthForm.push_back(static_cast<char>((text.size() >> (8 * i)) & 0xFF));
  EXPECT_EQ(datagram.compare(0, lengthForm.size(), lengthForm), 0);
  const auto fields = ParseJournalEntry(datagram);
  EXPECT_EQ(fields.at("MESSAGE"), text);
  EXPECT_EQ(fields.at("TID"), "77");
  EXPECT_EQ(fields.at("CODE_LINE"), "7");
}

TEST(JournalBackendTest, LineWithoutPrefixOrCallSiteSendsTheOtherFields) {
  DatagramReceiver journal;
  zel::JournalBackend backend(journal.path());
  // Handed over without a level: the tag gives it.
  static_cast<zel::LogBackend&>(backend).Log("Error:bare text\n");
  std::string datagram;
  ASSERT_TRUE(journal.Receive(&datagram));
  const auto fields = ParseJournalEntry(datagram);
  EXPECT_EQ(fields.at("MESSAGE"), "Error:bare text");
  EXPECT_EQ(fields.at("PRIORITY"), "3");
  // The default identifier is the executable's file name.
  EXPECT_EQ(fields.at("SYSLOG_IDENTIFIER"), "logger_backends_test");
  EXPECT_EQ(fields.size(), 3u);
}

TEST(JournalBackendTest, BadSocketPathIsRefusedAtConstruction) {
  EXPECT_THROW(zel::JournalBackend(""), std::invalid_argument);
  EXPECT_THROW(zel::JournalBackend("/tmp/" + std::string(120, 'x')), std::invalid_argument);
}

TEST(JournalBackendTest, LinesWhileNothingListensAreDroppedAndCounted) {
  TempDir dir;
  zel::JournalBackend backend(dir.path() + "no-socket");
  backend.Log("[][/a.cpp f 1] Error:x\n", 0);
  backend.Log("[][/a.cpp f 1] Error:y\n", 0);
  EXPECT_EQ(backend.Dropped(), 2u);
  EXPECT_EQ(backend.Sent(), 0u);
}

// Runs `lines` calls of `send` on a thread of their own and waits for them
// with a deadline. False when they did not finish in time: something
// blocked.
bool FinishesInTime(int lines, const std::function<void(int)>& send) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::thread sender([done, lines, send] {
    for (int i = 0; i < lines; ++i) send(i);
    done->store(true);
  });
  const bool finished = WaitFor([&done] { return done->load(); }, std::chrono::seconds(60));
  if (finished) {
    sender.join();
  } else {
    sender.detach();  // blocked for good; the test has failed
  }
  return finished;
}

TEST(JournalBackendTest, FullSocketDropsAndCountsWithoutBlockingTheWriter) {
  TempDir dir;
  StartLog(dir);
  // A journal that nobody reads, with a small receive buffer: it fills
  // after a few entries.
  static std::unique_ptr<DatagramReceiver> journal;
  journal = std::make_unique<DatagramReceiver>(4096);
  static std::unique_ptr<zel::JournalBackend> backend;
  backend = std::make_unique<zel::JournalBackend>(journal->path());
  zel::Logger::GetInstance()->RegisterBackend(backend.get());
  constexpr int kLines = 3000;
  // The writer thread calls the backend; a flush returns only once it has
  // handed every line on.
  ASSERT_TRUE(FinishesInTime(kLines, [](int i) {
    log_print(3, 1, "[%s][%s %s %d] Debug:line %d of a burst\n", "", "/a.cpp", "f", 1, i);
    if (i + 1 == kLines) zel_log_flush();
  })) << "the writer was blocked by the full socket";
  EXPECT_EQ(backend->Sent() + backend->Dropped(), static_cast<uint64_t>(kLines));
  EXPECT_GT(backend->Dropped(), 0u);
  EXPECT_EQ(static_cast<uint64_t>(journal->Drain()), backend->Sent());
  // Every line still reached the file.
  EXPECT_EQ(
      zel_test::CountOccurrences(zel_test::ReadLiveLog(zel::Logger::GetLogPath()), "of a burst\n"),
      kLines);
}

// ---------------------------------------------------------------------------
// A real journald, started privately in a journal namespace of its own.

// A systemd-journald serving the namespace "zel-test-<pid>": its socket is
// /run/systemd/journal.<namespace>/socket and its files are read back with
// journalctl --namespace. Removes its directories when destroyed.
class PrivateJournald {
 public:
  PrivateJournald() : namespace_("zel-test-" + std::to_string(getpid())) {}
  ~PrivateJournald() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int status = 0;
      waitpid(pid_, &status, 0);
    }
    TempDir::RemoveTree("/run/systemd/journal." + namespace_);
    const std::string machine = zel_test::ReadFile("/etc/machine-id");
    const std::string id = machine.substr(0, machine.find('\n'));
    if (!id.empty()) {
      TempDir::RemoveTree("/var/log/journal/" + id + "." + namespace_);
      TempDir::RemoveTree("/run/log/journal/" + id + "." + namespace_);
    }
  }
  PrivateJournald(const PrivateJournald&) = delete;
  PrivateJournald& operator=(const PrivateJournald&) = delete;

  // Starts journald; returns an empty text when it runs and listens, else
  // why it cannot run here.
  std::string Start() {
    if (geteuid() != 0) return "journald needs root for /run/systemd";
    const char* binary = "/lib/systemd/systemd-journald";
    if (access(binary, X_OK) != 0) return "no systemd-journald installed";
    if (system("command -v journalctl >/dev/null 2>&1") != 0) return "no journalctl installed";
    pid_ = fork();
    if (pid_ == 0) {
      const int null = open("/dev/null", O_RDWR);
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
      execl(binary, binary, namespace_.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    if (pid_ < 0) return "fork failed";
    if (!WaitFor([this] { return zel_test::FileExists(socketPath()) || exited(); })) {
      return "journald did not open its socket";
    }
    if (exited()) return "journald exited at once";
    return std::string();
  }

  std::string socketPath() const { return "/run/systemd/journal." + namespace_ + "/socket"; }

  // The entries journalctl shows for `identifier`, as JSON objects.
  std::vector<Json::Value> Entries(const std::string& identifier) {
    std::vector<Json::Value> entries;
    const std::string command = "journalctl --namespace=" + namespace_ +
                                " --no-pager -o json SYSLOG_IDENTIFIER=" + identifier +
                                " 2>/dev/null";
    FILE* out = popen(command.c_str(), "r");
    if (out == nullptr) return entries;
    std::string text;
    char buf[4096];
    for (std::size_t n; (n = fread(buf, 1, sizeof(buf), out)) > 0;) text.append(buf, n);
    pclose(out);
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    for (const std::string& line : zel_test::SplitLines(text)) {
      Json::Value value;
      std::string errors;
      if (reader->parse(line.data(), line.data() + line.size(), &value, &errors)) {
        entries.push_back(value);
      }
    }
    return entries;
  }

 private:
  bool exited() {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return true;
    }
    return pid_ <= 0;
  }

  std::string namespace_;
  pid_t pid_ = -1;
};

TEST(JournalBackendTest, RealJournaldStoresTheFieldsOfEachLine) {
  PrivateJournald journald;
  const std::string why = journald.Start();
  if (!why.empty()) GTEST_SKIP() << "a private systemd-journald cannot run here: " << why;
  TempDir dir;
  StartLog(dir);
  const std::string identifier = "zel-test-" + std::to_string(getpid());
  static std::unique_ptr<zel::JournalBackend> backend;
  backend = std::make_unique<zel::JournalBackend>(journald.socketPath(), identifier);
  zel::Logger::GetInstance()->RegisterBackend(backend.get());
  log_print(0, 1, "[%s][%s %s %d] Error:disk %s gone\n\n", "", "/device.cpp", "zel::Device::Remove",
            321, "E:");
  log_print(4, 1, "[%s][%s %s %d] Debug:two\nlines\n", "", "/looper.cpp", "zel::Looper::Run", 99);
  zel_log_flush();
  EXPECT_EQ(backend->Sent(), 2u);
  std::vector<Json::Value> entries;
  ASSERT_TRUE(WaitFor([&] { return (entries = journald.Entries(identifier)).size() >= 2; }))
      << "journalctl shows " << entries.size() << " entries";
  ASSERT_EQ(entries.size(), 2u);
  const std::string tid = std::to_string(zel_test::OsThreadId());
  EXPECT_EQ(entries[0]["MESSAGE"].asString(),
            "[][/device.cpp zel::Device::Remove 321] Error:disk E: gone");
  EXPECT_EQ(entries[0]["PRIORITY"].asString(), "3");
  EXPECT_EQ(entries[0]["CODE_FILE"].asString(), "device.cpp");
  EXPECT_EQ(entries[0]["CODE_FUNC"].asString(), "zel::Device::Remove");
  EXPECT_EQ(entries[0]["CODE_LINE"].asString(), "321");
  EXPECT_EQ(entries[0]["TID"].asString(), tid);
  // Received on the native protocol's socket (a field journald sets itself).
  EXPECT_EQ(entries[0]["_TRANSPORT"].asString(), "journal");
  EXPECT_EQ(entries[1]["MESSAGE"].asString(),
            "[][/looper.cpp zel::Looper::Run 99] Debug:two\nlines");
  EXPECT_EQ(entries[1]["PRIORITY"].asString(), "5");
  EXPECT_EQ(entries[1]["CODE_FILE"].asString(), "looper.cpp");
}

// ---------------------------------------------------------------------------
// The syslog protocol.

TEST(SyslogBackendTest, MessageHasTheFormOfRfc3164) {
  TempDir dir;
  StartLog(dir);
  DatagramReceiver daemon;
  static std::unique_ptr<zel::SyslogBackend> backend;
  backend =
      std::make_unique<zel::SyslogBackend>(daemon.path(), "zeltest", zel::SyslogFacility::kLocal0);
  zel::Logger::GetInstance()->RegisterBackend(backend.get());
  log_print(0, 1, "[%s][%s %s %d] Error:disk %s gone \n\n", "", "/device.cpp",
            "zel::Device::Remove", 321, "E:");
  zel_log_flush();
  std::string datagram;
  ASSERT_TRUE(daemon.Receive(&datagram));
  // local0 (16) * 8 + err (3) = 131; the time is local time, the day padded
  // with a blank.
  const std::regex form(R"(<131>(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3]\d )"
                        R"(\d\d:\d\d:\d\d zeltest\[(\d+)\]: (.*))");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(datagram, match, form)) << datagram;
  EXPECT_EQ(match[2].str(), std::to_string(getpid()));
  EXPECT_EQ(match[3].str(), "[][/device.cpp zel::Device::Remove 321] Error:disk E: gone ");
  EXPECT_EQ(backend->Sent(), 1u);
}

TEST(SyslogBackendTest, SeverityFollowsTheLevelAndFacilityDefaultsToUser) {
  TempDir dir;
  StartLog(dir);
  DatagramReceiver daemon;
  static std::unique_ptr<zel::SyslogBackend> backend;
  backend = std::make_unique<zel::SyslogBackend>(daemon.path());
  zel::Logger::GetInstance()->RegisterBackend(backend.get());
  const int levels[] = {0, 1, 3, 4, 2, 9};
  const char* pris[] = {"<11>", "<12>", "<15>", "<13>", "<14>", "<14>"};
  for (int level : levels) log_print(level, 1, "[%s][%s %s %d] Debug:x\n", "", "/a.cpp", "f", 1);
  zel_log_flush();
  for (const char* pri : pris) {
    std::string datagram;
    ASSERT_TRUE(daemon.Receive(&datagram));
    EXPECT_EQ(datagram.substr(0, std::strlen(pri)), pri) << datagram;
    // The default identifier is the executable's file name.
    EXPECT_NE(datagram.find(" logger_backends_test["), std::string::npos) << datagram;
  }
}

TEST(SyslogBackendTest, BadArgumentsAreRefusedAtConstruction) {
  EXPECT_THROW(zel::SyslogBackend(""), std::invalid_argument);
  EXPECT_THROW(zel::SyslogBackend("/tmp/" + std::string(120, 'x')), std::invalid_argument);
  EXPECT_THROW(zel::SyslogBackend("/dev/log", "two words"), std::invalid_argument);
  EXPECT_THROW(zel::SyslogBackend("/dev/log", "a:b"), std::invalid_argument);
  EXPECT_THROW(zel::SyslogBackend("/dev/log", "a[1]"), std::invalid_argument);
  EXPECT_THROW(zel::SyslogBackend("/dev/log", "", static_cast<zel::SyslogFacility>(12)),
               std::invalid_argument);
  EXPECT_THROW(zel::SyslogBackend("/dev/log", "", static_cast<zel::SyslogFacility>(24)),
               std::invalid_argument);
  EXPECT_NO_THROW(zel::SyslogBackend("/dev/log", "ok", zel::SyslogFacility::kLocal7));
}

TEST(SyslogBackendTest, FullSocketDropsAndCountsWithoutBlockingTheCaller) {
  DatagramReceiver daemon(4096);
  zel::SyslogBackend backend(daemon.path(), "zeltest");
  constexpr int kLines = 3000;
  const std::string line =
      "[3-7 09:05:01.042][tid:1] [][/a.cpp f 1] Debug:" + std::string(200, 'x') + "\n";
  ASSERT_TRUE(FinishesInTime(kLines, [&backend, &line](int) { backend.Log(line, 3); }))
      << "the caller was blocked by the full socket";
  EXPECT_EQ(backend.Sent() + backend.Dropped(), static_cast<uint64_t>(kLines));
  EXPECT_GT(backend.Dropped(), 0u);
  EXPECT_EQ(static_cast<uint64_t>(daemon.Drain()), backend.Sent());
}

TEST(SyslogBackendTest, LinesWhileNothingListensAreDroppedAndCounted) {
  DatagramReceiver daemon;
  zel::SyslogBackend backend(daemon.path(), "zeltest");
  backend.Log("[][/a.cpp f 1] Error:x\n", 0);
  daemon.Close();
  backend.Log("[][/a.cpp f 1] Error:y\n", 0);
  EXPECT_EQ(backend.Sent(), 1u);
  EXPECT_EQ(backend.Dropped(), 1u);
}
#endif  // !ZEL_TEST_ON_WINDOWS

}  // namespace
