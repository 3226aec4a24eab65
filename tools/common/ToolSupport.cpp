#include "tools/common/ToolSupport.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/log/DefaultOrigins.h"

#include <cerrno>
#include <cstdlib>
#include <strings.h>

namespace tavrinTools {

using tavrinLog::SeverityLevel;

const std::string& ArgReader::next() {
  name = args[index++];
  hasInlineValue = false;
  const size_t equals = name.find('=');
  if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
    inlineValue = name.substr(equals + 1);
    name.erase(equals);
    hasInlineValue = true;
  }
  return name;
}

bool ArgReader::value(std::string& out) {
  if (hasInlineValue) {
    out = inlineValue;
    hasInlineValue = false;
    return true;
  }
  if (index >= args.size()) {
    std::fprintf(stderr, "option %s needs a value\n", name.c_str());
    return false;
  }
  out = args[index++];
  return true;
}

bool parseUnsigned(const std::string& text, unsigned long max, unsigned long& out) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  char* end = nullptr;
  errno = 0;
  // Decimal, or hexadecimal with 0x: a leading zero does not make a port octal.
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const unsigned long long value = std::strtoull(text.c_str(), &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0' || value > max) return false;
  out = static_cast<unsigned long>(value);
  return true;
}

bool parseIp(const std::string& text, tavrinNetwork::SimpleIp& out) {
  unsigned parts[4];
  char tail;
  if (std::sscanf(text.c_str(), "%u.%u.%u.%u%c", &parts[0], &parts[1], &parts[2], &parts[3],
                  &tail) != 4)
    return false;
  for (unsigned part : parts)
    if (part > 255) return false;
  out = tavrinNetwork::SimpleIp(text);
  return true;
}

bool parseEndpoint(const std::string& text, tavrinNetwork::SimpleEndpoint& out) {
  const size_t colon = text.rfind(':');
  tavrinNetwork::SimpleIp ip;
  unsigned long port = 0;
  if (colon == std::string::npos || !parseIp(text.substr(0, colon), ip) ||
      !parseUnsigned(text.substr(colon + 1), 65535, port))
    return false;
  out = tavrinNetwork::SimpleEndpoint(ip, static_cast<unsigned short>(port));
  return true;
}

namespace {

bool parseLevel(const std::string& text, SeverityLevel::Type& out) {
  for (int level = SeverityLevel::Emergency; level <= SeverityLevel::Maximum; ++level) {
    const auto type = static_cast<SeverityLevel::Type>(level);
    if (strcasecmp(text.c_str(), SeverityLevel::getText(type)) == 0) {
      out = type;
      return true;
    }
  }
  if (strcasecmp(text.c_str(), "Off") == 0) {
    out = SeverityLevel::Off;
    return true;
  }
  unsigned long number = 0;
  if (!parseUnsigned(text, SeverityLevel::Maximum, number)) return false;
  out = static_cast<SeverityLevel::Type>(number);
  return true;
}

bool parseOrigin(const std::string& text, int& out) {
  for (unsigned origin = 0; origin < tavrinCommon::DefaultOrigins::size(); ++origin) {
    if (strcasecmp(text.c_str(), tavrinCommon::DefaultOrigins::getText(static_cast<int>(origin))) ==
        0) {
      out = static_cast<int>(origin);
      return true;
    }
  }
  unsigned long number = 0;
  if (!parseUnsigned(text, 0x7FFFFFFF, number)) return false;
  out = static_cast<int>(number);
  return true;
}

}  // namespace

bool LogLevels::parse(const std::string& text) {
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    const std::string item = text.substr(start, comma - start);
    const size_t equals = item.find('=');
    SeverityLevel::Type level;
    if (equals == std::string::npos) {
      if (!parseLevel(item, level)) return false;
      all = level;
    } else {
      int origin = 0;
      if (!parseOrigin(item.substr(0, equals), origin) ||
          !parseLevel(item.substr(equals + 1), level))
        return false;
      perOrigin.emplace_back(origin, level);
    }
    start = comma + 1;
  }
  return true;
}

void LogLevels::apply(tavrinLog::TavrinLogging& logging) const {
  // Off is not a level the logging object stores; it is every origin below Emergency.
  if (all == SeverityLevel::Off)
    logging.setSeverityOff();
  else
    logging.setAllComponentsSeverity(all);
  for (const auto& entry : perOrigin) {
    // A single origin switched off keeps only what no line is ever logged at.
    logging.setComponentSeverity(
        entry.first, entry.second == SeverityLevel::Off ? SeverityLevel::Emergency : entry.second);
  }
}

void LineWriter::write(const char* tag, const char* text) {
  std::lock_guard<std::mutex> lock(mutex);
  if (stamped) std::fprintf(stream, "[%7.3fs] ", elapsedSeconds());
  if (tag && *tag) std::fprintf(stream, "%-7s ", tag);
  std::fprintf(stream, "%s\n", text);
  std::fflush(stream);
}

void LineWriter::writeRaw(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex);
  std::fputs(text.c_str(), stream);
  std::fflush(stream);
}

double LineWriter::elapsedSeconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

tavrinLog::TavrinLogging::LogCallback makeLogCallback(LineWriter& writer, const char* tag) {
  return [&writer, tag](int, SeverityLevel::Type, const char* text) { writer.write(tag, text); };
}

const char* defaultOriginName(int origin) { return tavrinCommon::DefaultOrigins::getText(origin); }

const char* reasonText(int reason) {
  if (reason > 0) return "application reason";
  if (reason == 0) return "no reason";
  return tavrinConnector::DisconnectReason::getText(static_cast<long>(reason));
}

void printVersion(const char* tool) {
  std::printf("%s %s (libtavrincommon %s)\n", tool, TAVRIN_VERSION, TAVRIN_VERSION);
}

const char* const kCommonOptionsHelp =
    "  --log-level LEVELS   log levels: LEVEL for every origin, ORIGIN=LEVEL for one, or a\n"
    "                       comma-separated list of both (levels: Off Emergency Error Warning\n"
    "                       Info Service Debug Detailed Maximum; origins: Firmware TCPConnector\n"
    "                       SimpleConnector MCAnnounce Sockets NetworkService Scheduler ...)\n"
    "  --help               this text\n"
    "  --version            the tool's and the library's version\n"
    "  SIGUSR1              prints the dump() of the tool's objects\n";

}  // namespace tavrinTools
