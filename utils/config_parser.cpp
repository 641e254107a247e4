// SPDX-License-Identifier: MIT

#include "utils/config_parser.h"

#include <glib.h>

#include <cstdlib>
#include <string>

#include "utils/logger.h"
#include "utils/platform.h"

namespace zel {

namespace {

constexpr const char* kFile = platform::fileTail(__FILE__);

// Line numbers that the error lines carry as part of their text.
constexpr int kInitEmptyPathLine = 13;
constexpr int kInitLoadFailedLine = 29;
constexpr int kGetDoubleValLine = 105;
constexpr int kGetBooleanValsLine = 126;
constexpr int kGetStringValsLine = 151;
constexpr int kGetIntegerValsLine = 175;
constexpr int kGetDoubleValsLine = 200;
constexpr int kSetValuesByStringLine = 224;

// Logs the error line of Init() for `path` (also forwarded to the backends).
void logFileError(int line, const std::string& path) {
  if (zel_log_level() >= 0) {
    log_print(0, 1, "[%s][%s %s %d] Error:file[%s] err\n", "", kFile, "zel::ConfigParser::Init",
              line, path.c_str());
  }
}

// Logs a getter's error line with GLib's message; called with the mutex held.
void logGLibError(const char* function, int line, const GError* error) {
  if (zel_log_level() >= 0) {
    log_print(0, 0, "[%s][%s %s %d] Error:%s \n\n", "", kFile, function, line, error->message);
  }
}

// The shared shape of the list getters: with `mutex` held, calls `fetch`
// (which returns GLib's list and sets `length` and `error`); on an error logs
// it and yields an empty vector, otherwise converts `length` items with
// `convert` and releases the list with `release`.
template <typename Item, typename List, typename Fetch, typename Convert, typename Release>
std::vector<Item> getList(std::mutex& mutex, GKeyFile* const& keyFile, const char* function,
                          int line, Fetch fetch, Convert convert, Release release) {
  std::vector<Item> items;
  std::lock_guard<std::mutex> lock(mutex);
  if (keyFile == nullptr) return items;
  gsize length = 0;
  GError* error = nullptr;
  List list = fetch(&length, &error);
  if (error != nullptr) {
    logGLibError(function, line, error);
    g_clear_error(&error);
    if (list != nullptr) release(list);
    return items;
  }
  if (list == nullptr) return items;
  items.reserve(length);
  for (gsize i = 0; i < length; ++i) items.push_back(convert(list[i]));
  release(list);
  return items;
}

}  // namespace

ConfigParser::ConfigParser() : mKeyFile(nullptr) {}

ConfigParser::~ConfigParser() {
  if (mKeyFile != nullptr) g_key_file_free(mKeyFile);
}

int ConfigParser::Init(const std::string& path, const std::string& separator) {
  if (path.empty()) {
    logFileError(kInitEmptyPathLine, path);
    return -1;
  }
  mFilePath = path;
  // A second Init() would otherwise lose the first key file.
  if (mKeyFile != nullptr) g_key_file_free(mKeyFile);
  mKeyFile = g_key_file_new();
  if (separator.size() == 1) g_key_file_set_list_separator(mKeyFile, separator[0]);

  // The bytes are read here, not by GLib: the open must not wait (a FIFO
  // would block it for ever), and only a regular file of bounded size is
  // read. GLib parses them as it parses a file it reads itself.
  std::string data;
  if (platform::readRegularFile(path.c_str(), kConfigParserMaxFileSize, &data) ==
      platform::ReadResult::kOk) {
    GError* error = nullptr;
    if (g_key_file_load_from_data(mKeyFile, data.data(), data.size(), G_KEY_FILE_NONE, &error)) {
      return 0;
    }
    g_error_free(error);
  }
  g_key_file_free(mKeyFile);
  // Cleared so that the destructor and a later Init() do not touch the
  // released handle.
  mKeyFile = nullptr;
  logFileError(kInitLoadFailedLine, path);
  return -1;
}

const std::string ConfigParser::GetRoot() { return mRoot; }

std::string ConfigParser::GetStringVal(const std::string& group, const std::string& key) {
  if (group.empty() || key.empty()) return std::string();
  std::lock_guard<std::mutex> lock(mMutex);
  // Without a key file GLib would only print a warning and give nothing.
  if (mKeyFile == nullptr) return std::string();
  GError* error = nullptr;
  gchar* text = g_key_file_get_string(mKeyFile, group.c_str(), key.c_str(), &error);
  if (error != nullptr) g_clear_error(&error);
  if (text == nullptr) return std::string();
  std::string value(text);
  // GLib's memory goes back to GLib: on Windows the GLib DLL may use a C
  // runtime of its own, whose heap free() of this library must not touch.
  g_free(text);
  return value;
}

std::vector<std::string> ConfigParser::GetStringVals(const std::string& group,
                                                     const std::string& key) {
  if (group.empty() || key.empty()) return {};
  return getList<std::string, gchar**>(
      mMutex, mKeyFile, "zel::ConfigParser::GetStringVals", kGetStringValsLine,
      [&](gsize* length, GError** error) {
        return g_key_file_get_string_list(mKeyFile, group.c_str(), key.c_str(), length, error);
      },
      [](const gchar* item) { return std::string(item); }, [](gchar** list) { g_strfreev(list); });
}

int ConfigParser::GetIntegerVal(const std::string& group, const std::string& key, int* value) {
  if (group.empty() || key.empty()) return -1;
  std::lock_guard<std::mutex> lock(mMutex);
  if (mKeyFile == nullptr) {
    *value = 0;
    return 0;
  }
  GError* error = nullptr;
  *value = g_key_file_get_integer(mKeyFile, group.c_str(), key.c_str(), &error);
  if (error != nullptr) g_clear_error(&error);
  return 0;
}

std::vector<int> ConfigParser::GetIntegerVals(const std::string& group, const std::string& key) {
  if (group.empty() || key.empty()) return {};
  return getList<int, gint*>(
      mMutex, mKeyFile, "zel::ConfigParser::GetIntegerVals", kGetIntegerValsLine,
      [&](gsize* length, GError** error) {
        return g_key_file_get_integer_list(mKeyFile, group.c_str(), key.c_str(), length, error);
      },
      [](gint item) { return static_cast<int>(item); }, [](gint* list) { g_free(list); });
}

int ConfigParser::GetDoubleVal(const std::string& group, const std::string& key, double* value) {
  if (group.empty() || key.empty()) return -1;
  std::lock_guard<std::mutex> lock(mMutex);
  if (mKeyFile == nullptr) {
    *value = 0.0;
    return 0;
  }
  GError* error = nullptr;
  *value = g_key_file_get_double(mKeyFile, group.c_str(), key.c_str(), &error);
  if (error != nullptr) {
    logGLibError("zel::ConfigParser::GetDoubleVal", kGetDoubleValLine, error);
    g_clear_error(&error);
  }
  return 0;
}

std::vector<double> ConfigParser::GetDoubleVals(const std::string& group, const std::string& key) {
  if (group.empty() || key.empty()) return {};
  return getList<double, gdouble*>(
      mMutex, mKeyFile, "zel::ConfigParser::GetDoubleVals", kGetDoubleValsLine,
      [&](gsize* length, GError** error) {
        return g_key_file_get_double_list(mKeyFile, group.c_str(), key.c_str(), length, error);
      },
      [](gdouble item) { return static_cast<double>(item); }, [](gdouble* list) { g_free(list); });
}

bool ConfigParser::GetBooleanVal(const std::string& group, const std::string& key) {
  if (group.empty() || key.empty()) return false;
  std::lock_guard<std::mutex> lock(mMutex);
  if (mKeyFile == nullptr) return false;
  GError* error = nullptr;
  const gboolean result = g_key_file_get_boolean(mKeyFile, group.c_str(), key.c_str(), &error);
  if (error != nullptr) g_clear_error(&error);
  return result != FALSE;
}

std::vector<bool> ConfigParser::GetBooleanVals(const std::string& group, const std::string& key) {
  if (group.empty() || key.empty()) return {};
  return getList<bool, gboolean*>(
      mMutex, mKeyFile, "zel::ConfigParser::GetBooleanVals", kGetBooleanValsLine,
      [&](gsize* length, GError** error) {
        return g_key_file_get_boolean_list(mKeyFile, group.c_str(), key.c_str(), length, error);
      },
      [](gboolean item) { return item != FALSE; }, [](gboolean* list) { g_free(list); });
}

int ConfigParser::SetValuesByString(const std::string& group, const std::string& key,
                                    const std::string& value) {
  if (group.empty() || key.empty() || value.empty()) return -1;
  std::lock_guard<std::mutex> lock(mMutex);
  if (mKeyFile != nullptr) {
    g_key_file_set_string(mKeyFile, group.c_str(), key.c_str(), value.c_str());
  }
  // Writing back to the file is what is not implemented; the copy in memory
  // has changed all the same.
  if (zel_log_level() >= 0) {
    log_print(0, 0, "[%s][%s %s %d] Error:not implement\n", "", kFile,
              "zel::ConfigParser::SetValuesByString", kSetValuesByStringLine);
  }
  return 0;
}

}  // namespace zel
