// SPDX-License-Identifier: MIT

// Demonstration of the configuration readers and the string helpers.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "examples/demo_parts.h"
#include "utils/config_file.h"
#include "utils/config_parser.h"
#include "utils/zel_string.h"

namespace {

void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Prints the lines of `text` indented.
void printIndented(const std::string& text) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::printf("    | %s\n", text.substr(start, end - start).c_str());
    start = end + 1;
  }
}

template <typename T, typename Format>
std::string joined(const std::vector<T>& items, Format format) {
  std::string text = "[";
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) text += ", ";
    text += format(items[i]);
  }
  return text + "]";
}

void demoKeyFile(const std::string& workDir) {
  const std::string path = workDir + "device.conf";
  writeText(path,
            "# A key file read with zel::ConfigParser\n"
            "[camera]\n"
            "name=front camera\n"
            "index=2\n"
            "fps=29.97\n"
            "redirect=true\n"
            "resolutions=640x480,1280x720,1920x1080\n"
            "ports=1,4,7\n"
            "gains=0.5,1.25\n"
            "enabled=true,false,true\n");
  std::printf("\n-- key file %s\n", path.c_str());
  printIndented(readText(path));

  zel::ConfigParser parser;
  if (parser.Init(path, ",") != 0) {
    std::printf("  could not load the key file\n");
    return;
  }
  int index = 0;
  double fps = 0.0;
  parser.GetIntegerVal("camera", "index", &index);
  parser.GetDoubleVal("camera", "fps", &fps);
  std::printf("  GetStringVal(camera, name)      = \"%s\"\n",
              parser.GetStringVal("camera", "name").c_str());
  std::printf("  GetIntegerVal(camera, index)    = %d\n", index);
  std::printf("  GetDoubleVal(camera, fps)       = %.2f\n", fps);
  std::printf("  GetBooleanVal(camera, redirect) = %s\n",
              parser.GetBooleanVal("camera", "redirect") ? "true" : "false");
  std::printf("  GetStringVals(camera, resolutions) = %s\n",
              joined(parser.GetStringVals("camera", "resolutions"), [](const std::string& s) {
                return "\"" + s + "\"";
              }).c_str());
  std::printf("  GetIntegerVals(camera, ports)   = %s\n",
              joined(parser.GetIntegerVals("camera", "ports"), [](int v) {
                return std::to_string(v);
              }).c_str());
  std::printf("  GetDoubleVals(camera, gains)    = %s\n",
              joined(parser.GetDoubleVals("camera", "gains"), [](double v) {
                char buf[32];
                std::snprintf(buf, sizeof(buf), "%.2f", v);
                return std::string(buf);
              }).c_str());
  std::printf("  GetBooleanVals(camera, enabled) = %s\n",
              joined(parser.GetBooleanVals("camera", "enabled"), [](bool v) {
                return std::string(v ? "true" : "false");
              }).c_str());
  std::printf("  GetStringVal(camera, missing)   = \"%s\" (missing keys give defaults)\n",
              parser.GetStringVal("camera", "missing").c_str());
}

void demoIniFile(const std::string& workDir) {
  const std::string path = workDir + "client.ini";
  writeText(path,
            "# An INI file read and changed line by line\n"
            "[net]\n"
            "host=example.org\n"
            "port=80\n"
            "[log]\n"
            "level=3\n");
  std::printf("\n-- INI file %s\n", path.c_str());
  printIndented(readText(path));

  char* host = GetKeyStringFromFile(path.c_str(), "net", "host");
  std::printf("  GetKeyStringFromFile(net, host) = \"%s\"\n", host != nullptr ? host : "(null)");
  std::free(host);
  std::printf("  GetKeyIntFromFile(net, port)    = %d\n",
              GetKeyIntFromFile(path.c_str(), "net", "port"));
  std::printf("  GetKeyIntFromFile(log, level)   = %d\n",
              GetKeyIntFromFile(path.c_str(), "log", "level"));

  std::printf("  PutKeyIntToFile(net, port, 8080)       = %d\n",
              PutKeyIntToFile(path.c_str(), "net", "port", 8080));
  std::printf("  PutKeyStringToFile(net, proxy, none)   = %d (a missing key is not added)\n",
              PutKeyStringToFile(path.c_str(), "net", "proxy", "none"));
  std::printf("  file afterwards:\n");
  printIndented(readText(path));

  char* configPath = GetConfigFilePath();
  std::printf("  GetConfigFilePath() = \"%s\" (no location is composed in this version)\n",
              configPath != nullptr ? configPath : "(null)");
  std::free(configPath);
  const std::string appData = GetAppDataPath();
  std::printf("  GetAppDataPath()    = \"%s\"%s\n", appData.c_str(),
              appData.empty() ? " (APPDATA is not set)" : "");
}

void demoStrings() {
  std::printf("\n-- string helpers\n");
  for (const char* text : {"([]{})", "([)]", "f(a[b]"}) {
    std::printf("  check_brackets(\"%s\") = %s\n", text, check_brackets(text) ? "true" : "false");
  }
  for (const char* text : {"0xff", "1A", "FFFFFFFF", "12 34"}) {
    std::printf("  zel_htoi(\"%s\") = %d\n", text, zel_htoi(text));
  }
  std::printf("  (get_brackets_value also writes debug lines to the log at level 3)\n");
  for (const char* text : {"usb[disk]", "f(a(b)c)", "()"}) {
    std::string value;
    const std::string input = text;
    const char open = input.find('[') != std::string::npos ? '[' : '(';
    const char close = open == '[' ? ']' : ')';
    const int result = get_brackets_value(value, input, open, close, '\0');
    std::printf("  get_brackets_value(\"%s\", '%c', '%c') = %d, \"%s\"\n", text, open, close,
                result, value.c_str());
  }
  for (const char* text : {"vid=0781", "name=usb=disk", "novalue"}) {
    std::string key;
    std::string value;
    const int result = parse_string_kv(text, "=", key, value);
    std::printf("  parse_string_kv(\"%s\", \"=\") = %d, key \"%s\", value \"%s\"\n", text, result,
                key.c_str(), value.c_str());
  }
  const struct {
    const char* text;
    const char* separator;
  } splits[] = {{"disk,,camera,printer", ","}, {"a::b::c", "::"}};
  for (const auto& s : splits) {
    std::printf("  split_strings(\"%s\", \"%s\") = %s\n", s.text, s.separator,
                joined(split_strings(s.text, s.separator), [](const std::string& f) {
                  return "\"" + f + "\"";
                }).c_str());
  }
}

}  // namespace

void DemoConfiguration(const std::string& workDir) {
  demoKeyFile(workDir);
  demoIniFile(workDir);
  demoStrings();
}
