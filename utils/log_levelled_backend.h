// SPDX-License-Identifier: MIT

// A log backend that receives each line together with its level.
//
// A plain LogBackend sees only the text of a line. A LevelledBackend
// registered with Logger::RegisterBackend() is recognised at registration:
// the Logger then hands it every forwarded line with the level the line was
// logged with (the `level` of log_print() or of Logger::Log(line, level,
// forward)). The library's own backends (the system journal, syslog, the
// Windows event log and the debugger output) are built on it; a backend of
// the client's may be too.
//
// A line handed over through the plain Log(line), by code that forwards
// lines itself, has no level: the level is then taken from the line's tag,
// the "Error:" or "Debug:" that follows the call-site part
// "[module][file function line] " of the library's lines (LevelFromTag()).
//
// Levels and what they are, as the library uses them: 0 errors, 1 the
// message loop's misuse warning, 3 debug, 4 the message loop's exit notice;
// SyslogPriority() maps them to the severities of syslog and the journal.
//
// Threads: the Logger calls Log(line, level) on its writer thread only, one
// line at a time, in the order the lines were posted.
//
// Example:
//   class Alerts : public zel::LevelledBackend {
//    public:
//     void Log(const std::string& line, int level) override {
//       if (level == 0) Page(line);  // errors only
//     }
//   };
//   static Alerts alerts;  // must outlive the process's logging
//   zel::Logger::GetInstance()->RegisterBackend(&alerts);
#ifndef ZEL_UTILS_LOG_LEVELLED_BACKEND_H_
#define ZEL_UTILS_LOG_LEVELLED_BACKEND_H_

#include <string>

#include "utils/export.h"
#include "utils/logger.h"

namespace zel {

class ZEL_API LevelledBackend : public LogBackend {
 public:
  // The level LevelFromTag() gives a line without a tag: information,
  // between the warning (1) and debug (3). The library logs no line of its
  // own at this level.
  static constexpr int kUntaggedLevel = 2;

  ~LevelledBackend() override;

  // Receives one complete line, prefix and newlines included, and the
  // level it was logged with. Levels beyond -32768..32767 arrive held at
  // the nearer end of that range. Called on the writer thread for forwarded
  // lines; the same rules hold as for LogBackend::Log(): it must not call
  // Logger::RegisterBackend() nor block for long.
  virtual void Log(const std::string& line, int level) = 0;

  // Receives a line without a level: calls Log(line, LevelFromTag(line)).
  void Log(const std::string& line) final;

  // Returns the level that the tag of `line` stands for: 0 for "Error:",
  // 3 for "Debug:", kUntaggedLevel for any other text. The tag is looked
  // for at the start of the text behind the prefix "[M-D hh:mm:ss.mmm][tid:T] "
  // and the call-site part "[module][file function line] ", each skipped
  // when the line has it. Threads: any thread.
  static int LevelFromTag(const std::string& line);

  // Returns the syslog severity of `level`: 0 gives 3 (err), 1 gives 4
  // (warning), 3 gives 7 (debug), 4 gives 5 (notice), any other level 6
  // (info). Threads: any thread.
  static int SyslogPriority(int level);
};

}  // namespace zel

#endif  // ZEL_UTILS_LOG_LEVELLED_BACKEND_H_
