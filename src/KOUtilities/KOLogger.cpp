#include "KOLogger.h"

#include <atomic>
#include <cstdio>
#include <mutex>

#include "KOStringFormat.h"
#include "KOUtilities/KOInternalConstants.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOPlatform.h"

namespace {

constexpr std::size_t kMaxFormatArgs = 11;

struct Settings {
  std::atomic<bool> shouldLogInDebug{false};
  std::atomic<bool> shouldLogInVerboseMessage{true};
  std::atomic<int> minimumSeverity{0};
  std::mutex mutex;  // guards the formats and the shipper
  std::optional<std::string> formatDefault;
  std::optional<std::string> formatDetailed;
  KOLogger::RemoteShipper shipper;
};

Settings& settings() {
  static auto* s = [] {
    auto* created = new Settings();
    created->formatDefault = "%@";
    created->formatDetailed = "<%p file - %@, line number - %@ , method - '%@'> %@";
    return created;
  }();
  return *s;
}

// A failure while reporting a logger failure must not recurse.
thread_local int gReportingDepth = 0;

void writeConsole(const std::string& line, int severity) {
  if (KOPlatform::isInstalled()) {
    KOPlatform::current().console->writeLogLine(line, severity);
  } else {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

void reportFailure(const char* format, const std::exception& e) {
  if (gReportingDepth > 0) return;
  ++gReportingDepth;
  try {
    KOLogger::logWithVerbosity(1, 0, KOArray{KOStringFormat::format(format, {KOValue(e.what())})});
  } catch (...) {
  }
  --gReportingDepth;
}

KOArray firstArgs(const KOArray& args) {
  if (args.size() <= kMaxFormatArgs) return args;
  KOArray out;
  out.reserve(kMaxFormatArgs);
  for (std::size_t i = 0; i < kMaxFormatArgs; ++i) out.push_back(args[i]);
  return out;
}

std::string lastPathComponent(const char* path) {
  std::string_view p(path ? path : "");
  const auto slash = p.find_last_of('/');
  return std::string(slash == std::string_view::npos ? p : p.substr(slash + 1));
}

}  // namespace

void KOLogger::setupDefaultFormats() {
  Settings& s = settings();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.formatDefault = "%@";
  s.formatDetailed = "<%p file - %@, line number - %@ , method - '%@'> %@";
}

void KOLogger::setFormat(std::string format, int forVerbosity) {
  Settings& s = settings();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (forVerbosity == 1)
    s.formatDefault = std::move(format);
  else if (forVerbosity == 2)
    s.formatDetailed = std::move(format);
}

std::optional<std::string> KOLogger::formatForVerbosity(int verbosity) {
  Settings& s = settings();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (verbosity == 1) return s.formatDefault;
  if (verbosity == 2) return s.formatDetailed;
  return std::nullopt;
}

void KOLogger::setMinimumSeverity(int severity) { settings().minimumSeverity = severity; }
int KOLogger::minimumSeverity() { return settings().minimumSeverity; }
void KOLogger::setShouldLogInDebug(bool value) { settings().shouldLogInDebug = value; }
bool KOLogger::shouldLogInDebug() { return settings().shouldLogInDebug; }
void KOLogger::setShouldLogInVerboseMessage(bool value) { settings().shouldLogInVerboseMessage = value; }
bool KOLogger::shouldLogInVerboseMessage() { return settings().shouldLogInVerboseMessage; }

bool KOLogger::usingSeverityFiltering() { return minimumSeverity() != 0 && shouldLogInVerboseMessage(); }

bool KOLogger::loggingEnabled() {
  return shouldLogInDebug() || (usingSeverityFiltering() && shouldLogInVerboseMessage());
}

bool KOLogger::meetsMinimumSeverity(int severity) { return severity >= minimumSeverity(); }

std::string KOLogger::labelForSeverity(int severity) {
  switch (severity) {
    case 1:
      return "DEBUG";
    case 2:
      return "INFO";
    case 3:
      return "WARNING";
    case 4:
      return "EXCEPTION";
    case 5:
      return "ERROR";
    default:
      return "";
  }
}

void KOLogger::debug(int level) {
  try {
    switch (level) {
      case 0:
        setShouldLogInDebug(false);
        setShouldLogInVerboseMessage(false);
        break;
      case 1:
        setShouldLogInDebug(true);
        break;
      case 2:
        setShouldLogInDebug(false);
        setShouldLogInVerboseMessage(true);
        setMinimumSeverity(4);
        break;
      default:
        break;
    }
  } catch (const std::exception& e) {
    log("Caught an exception in KOLogger : %@", KOArray{KOValue(e.what())});
  }
}

std::optional<std::string> KOLogger::getLogforVerbosity(int verbosity, int severity, const KOArray& andFormatArgs) {
  if (verbosity == 0) return std::nullopt;
  std::optional<std::string> format = formatForVerbosity(verbosity);
  if (!format) return std::nullopt;
  if (usingSeverityFiltering()) {
    if (!meetsMinimumSeverity(severity)) return std::nullopt;
    format = KOStringFormat::format("[%@]\t%@", {KOValue(labelForSeverity(severity)), KOValue(*format)});
  }
  return KOStringFormat::format(*format, firstArgs(andFormatArgs));
}

void KOLogger::logWithVerbosity(int verbosity, int severity, const KOArray& formatArgs) {
  try {
    if (!loggingEnabled() || verbosity == 0) return;
    if (std::optional<std::string> line = getLogforVerbosity(verbosity, severity, formatArgs)) {
      writeConsole(*line, severity);
    }
  } catch (const std::exception& e) {
    reportFailure("LogEntries Logger exception in logWithVerbosity: %@", e);
  }
}

void KOLogger::logWithVerbosity(int verbosity, int severity, const KOArray& formatArgs, const KOValue& andStackTrace) {
  logWithVerbosity(verbosity, severity, formatArgs);
  try {
    if (!KOPlatform::isInstalled()) return;
    const KOValue enabled = KOPlatform::current().preferences->standard().objectForKey(kShouldSendToLogEntries);
    if (!enabled.isNumber() || !enabled.boolValue()) return;
    std::optional<std::string> message = getLogforVerbosity(verbosity, severity, formatArgs);
    if (!message) return;
    RemoteShipper shipper;
    {
      std::lock_guard<std::mutex> lock(settings().mutex);
      shipper = settings().shipper;
    }
    // The server interface registers itself when it is created (at start); before that there is
    // no log token either, so nothing is lost by not shipping.
    if (shipper) shipper(*message, andStackTrace, labelForSeverity(severity));
  } catch (const std::exception& e) {
    reportFailure("LogEntries Logger exception logWithVerbosity:andStackTrace: %@", e);
  }
}

void KOLogger::log(std::string_view format, const KOArray& args) {
  try {
    writeConsole(createLog(format, args), KOLogSeverityNone);
  } catch (...) {
    try {
      writeConsole("Caught an exception in KOLogger", KOLogSeverityNone);
    } catch (...) {
    }
  }
}

std::string KOLogger::createLog(std::string_view format, const KOArray& args) {
  return KOStringFormat::format(format, args);
}

void KOLogger::logPlain(const std::string& message) { logWithVerbosity(1, 0, KOArray{KOValue(message)}); }

namespace {
KOArray locatedArgs(const KOSourceLocation& where, const void* object, const std::string& message) {
  return KOArray{KOValue(static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(object))),
                 KOValue(lastPathComponent(where.file)), KOValue(where.line),
                 KOValue(KOLogger::methodName(where.function)), KOValue(message)};
}
}  // namespace

void KOLogger::logLocated(const KOSourceLocation& where, const void* object, int severity, const std::string& message) {
  if (!loggingEnabled()) return;  // spare building the arguments of a line nobody prints
  logWithVerbosity(2, severity, locatedArgs(where, object, message));
}

void KOLogger::logException(const KOSourceLocation& where, const void* object, std::string_view format,
                            const std::exception& e) {
  if (!loggingEnabled()) return;
  logLocated(where, object, KOLogSeverityException, KOStringFormat::format(format, {KOValue(e.what())}));
}

void KOLogger::logError(const KOSourceLocation& where, const void* object, std::string_view format,
                        const std::exception& e) {
  if (!loggingEnabled()) return;
  logLocated(where, object, KOLogSeverityError, KOStringFormat::format(format, {KOValue(e.what())}));
}

void KOLogger::logLocated(const KOSourceLocation& where, const void* object, int severity, const std::string& message,
                          const KOValue& stackTrace) {
  logWithVerbosity(2, severity, locatedArgs(where, object, message), stackTrace);
}

void KOLogger::logExceptionQuietly(const KOSourceLocation& where, const void* object, int severity,
                                   std::string_view format, const std::exception& e) noexcept {
  try {
    if (!loggingEnabled()) return;
    logLocated(where, object, severity, KOStringFormat::format(format, {KOValue(e.what())}));
  } catch (...) {
  }
}

void KOLogger::setRemoteShipper(RemoteShipper shipper) {
  std::lock_guard<std::mutex> lock(settings().mutex);
  settings().shipper = std::move(shipper);
}

std::string KOLogger::methodName(const char* prettyFunction) {
  std::string_view f(prettyFunction ? prettyFunction : "");
  // Cut the parameter list: the first '(' outside template brackets.
  int angle = 0;
  std::size_t open = f.size();
  for (std::size_t i = 0; i < f.size(); ++i) {
    if (f[i] == '<')
      ++angle;
    else if (f[i] == '>')
      --angle;
    else if (f[i] == '(' && angle == 0) {
      open = i;
      break;
    }
  }
  std::string_view head = f.substr(0, open);
  // Drop the return type and qualifiers: the name is the last space-separated word.
  angle = 0;
  std::size_t start = 0;
  for (std::size_t i = 0; i < head.size(); ++i) {
    if (head[i] == '<')
      ++angle;
    else if (head[i] == '>')
      --angle;
    else if (head[i] == ' ' && angle == 0)
      start = i + 1;
  }
  return std::string(head.substr(start));
}
