// Class-level logger: console lines by verbosity and severity, and remote shipping of selected
// records once the service's configuration switches it on.
#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "kovantis/KOValue.h"

/// Where a located log line comes from.
struct KOSourceLocation {
  const char* file;
  int line;
  const char* function;
};

/// Captures the file, line and function of the code that logs.
#define KO_HERE (KOSourceLocation{__FILE__, __LINE__, __PRETTY_FUNCTION__})

enum KOLogSeverity : int {
  KOLogSeverityNone = 0,
  KOLogSeverityDebug = 1,
  KOLogSeverityInfo = 2,
  KOLogSeverityWarning = 3,
  KOLogSeverityException = 4,
  KOLogSeverityError = 5,
};

class KOLogger {
 public:
  /// Receives a record to ship: message, stack trace (nil allowed) and level label.
  using RemoteShipper =
      std::function<void(const std::string& message, const KOValue& traceBack, const std::string& level)>;

  /// Console only. Verbosity 1: args = [message]; verbosity 2: args = [object address, file name,
  /// line number, method name, message].
  static void logWithVerbosity(int verbosity, int severity, const KOArray& formatArgs);
  /// Console as above, then the record is shipped when "LOG_ENTRIES_ENABLED" is true.
  static void logWithVerbosity(int verbosity, int severity, const KOArray& formatArgs, const KOValue& andStackTrace);

  /// 0: silent; 1: everything, unlabelled; 2: severities 4 and 5, labelled. Other levels change nothing.
  static void debug(int level);

  static void setFormat(std::string format, int forVerbosity);
  static std::optional<std::string> formatForVerbosity(int verbosity);
  static void setMinimumSeverity(int severity);
  static int minimumSeverity();
  static void setShouldLogInDebug(bool value);
  static bool shouldLogInDebug();
  static void setShouldLogInVerboseMessage(bool value);
  static bool shouldLogInVerboseMessage();

  static bool loggingEnabled();
  static bool usingSeverityFiltering();
  static bool meetsMinimumSeverity(int severity);
  static std::string labelForSeverity(int severity);

  /// The finished line printing would produce (without the console switch), or nothing when the
  /// verbosity has no format or filtering drops the severity.
  static std::optional<std::string> getLogforVerbosity(int verbosity, int severity, const KOArray& andFormatArgs);

  /// Prints a formatted line to the console, whatever the settings.
  static void log(std::string_view format, const KOArray& args);
  static std::string createLog(std::string_view format, const KOArray& args);
  static void setupDefaultFormats();

  // Conveniences over logWithVerbosity for the SDK's own code.
  /// A plain line: verbosity 1, severity 0.
  static void logPlain(const std::string& message);
  /// A located line: verbosity 2 with the caller's object, file, line and method.
  static void logLocated(const KOSourceLocation& where, const void* object, int severity, const std::string& message);
  /// A located exception line (severity 4): the format's one %@ is the exception's text. Nothing
  /// is formatted when logging is off.
  /// Runs `body`; an exception it throws is logged at `where` as `format` (its "%@" the exception's
  /// text) and goes no further. The catch-and-log block of every public entry, written once.
  template <typename Body>
  static void guard(const KOSourceLocation& where, const void* object, std::string_view format, Body&& body) noexcept {
    guard(where, object, KOLogSeverityException, format, std::forward<Body>(body));
  }
  /// The same, logged at the given severity.
  template <typename Body>
  static void guard(const KOSourceLocation& where, const void* object, int severity, std::string_view format,
                    Body&& body) noexcept {
    try {
      body();
    } catch (const std::exception& e) {
      logExceptionQuietly(where, object, severity, format, e);
    } catch (...) {
      logExceptionQuietly(where, object, severity, format, std::runtime_error("unknown exception"));
    }
  }
  /// As logException, at error severity (5).
  static void logError(const KOSourceLocation& where, const void* object, std::string_view format,
                       const std::exception& e);
  static void logException(const KOSourceLocation& where, const void* object, std::string_view format,
                           const std::exception& e);
  /// A located line that is also shipped remotely when remote logging is on.
  static void logLocated(const KOSourceLocation& where, const void* object, int severity, const std::string& message,
                         const KOValue& stackTrace);

  /// Where shipped records go: the server interface registers its log upload here when it is
  /// created; nullptr stops shipping.
  static void setRemoteShipper(RemoteShipper shipper);
  /// logException that never throws itself (for guard()).
  static void logExceptionQuietly(const KOSourceLocation& where, const void* object, int severity,
                                  std::string_view format, const std::exception& e) noexcept;

  /// "Class::method" out of a compiler's pretty function name.
  static std::string methodName(const char* prettyFunction);
};
