// What every command-line tool shares: the option reader, the parsing of addresses, numbers and
// log levels, the log sink that prints library lines with origin and severity, and the standard
// --help/--version answers. Used by the tools only; never installed. Not thread-safe except
// LineWriter::write, which several loop threads may call.
#pragma once

#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/SimpleEndpoint.h"

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tavrinTools {

// Reads "--name value" and "--name=value" options and plain arguments, in order.
class ArgReader {
 public:
  ArgReader(int argc, char** argv) : args(argv + 1, argv + argc) {}

  bool done() const { return index >= args.size(); }
  // The next argument; for "--name=value" only "--name", the value is kept for value().
  const std::string& next();
  // The option's value; false (with a message on stderr) when it is missing.
  bool value(std::string& out);
  const std::string& current() const { return name; }

 private:
  std::vector<std::string> args;
  size_t index = 0;
  std::string name;
  std::string inlineValue;
  bool hasInlineValue = false;
};

bool parseUnsigned(const std::string& text, unsigned long max, unsigned long& out);
bool parseIp(const std::string& text, tavrinNetwork::SimpleIp& out);
// "a.b.c.d:port".
bool parseEndpoint(const std::string& text, tavrinNetwork::SimpleEndpoint& out);

// Log levels as given on the command line: "LEVEL" for every origin, "ORIGIN=LEVEL" for one, a
// comma-separated list of both. Names are those of the library (case does not matter), origins
// may also be numbers.
class LogLevels {
 public:
  explicit LogLevels(tavrinLog::SeverityLevel::Type defaultLevel) : all(defaultLevel) {}
  bool parse(const std::string& text);
  void apply(tavrinLog::TavrinLogging& logging) const;
  tavrinLog::SeverityLevel::Type defaultLevel() const { return all; }

 private:
  tavrinLog::SeverityLevel::Type all;
  std::vector<std::pair<int, tavrinLog::SeverityLevel::Type>> perOrigin;
};

// Writes whole lines to one stream, each optionally stamped with the time since start; lines of
// several threads never interleave.
class LineWriter {
 public:
  LineWriter(FILE* stream_, bool stamped_) : stream(stream_), stamped(stamped_) {}
  void write(const char* tag, const char* text);
  // As it stands, without stamp or tag.
  void writeRaw(const std::string& text);
  double elapsedSeconds() const;

 private:
  std::mutex mutex;
  FILE* stream;
  bool stamped;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

// A logging object whose lines go to `writer` tagged with `tag`; origins named by the library.
tavrinLog::TavrinLogging::LogCallback makeLogCallback(LineWriter& writer, const char* tag);
const char* defaultOriginName(int origin);

// The text of a disconnect or reject reason; positive codes are the application's own.
const char* reasonText(int reason);

void printVersion(const char* tool);
// The lines shared by every tool's --help.
extern const char* const kCommonOptionsHelp;

}  // namespace tavrinTools
