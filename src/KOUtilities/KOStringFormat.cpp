#include "KOStringFormat.h"

#include <cctype>
#include <cstdio>
#include <cstring>

std::string KOStringFormat::format(std::string_view fmt, const KOArray& args) {
  std::string out;
  out.reserve(fmt.size() + 32);
  std::size_t next = 0;
  auto take = [&]() -> const KOValue* { return next < args.size() ? &args[next++] : nullptr; };

  for (std::size_t i = 0; i < fmt.size(); ++i) {
    const char c = fmt[i];
    if (c != '%' || i + 1 >= fmt.size()) {
      out += c;
      continue;
    }
    // %[flags][width][.precision][length]conversion
    std::size_t j = i + 1;
    if (fmt[j] == '%') {
      out += '%';
      i = j;
      continue;
    }
    std::string conversion = "%";
    while (j < fmt.size() && std::strchr("-+ #0", fmt[j]) && fmt[j] != '\0') conversion += fmt[j++];
    while (j < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[j]))) conversion += fmt[j++];
    if (j < fmt.size() && fmt[j] == '.') {
      conversion += fmt[j++];
      while (j < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[j]))) conversion += fmt[j++];
    }
    while (j < fmt.size() && std::strchr("hlqLzjt", fmt[j]) && fmt[j] != '\0') ++j;  // lengths: we print 64-bit
    if (j >= fmt.size()) {
      out.append(fmt.substr(i));
      break;
    }
    const char conv = fmt[j];
    i = j;
    const KOValue* arg = nullptr;
    char buf[400];  // wide enough for any double printed with %f
    switch (conv) {
      case '@':
        arg = take();
        out += arg ? arg->description() : "(null)";
        break;
      case 's':
        arg = take();
        out += arg ? arg->description() : "(null)";
        break;
      case 'p':
        arg = take();
        if (arg && arg->isNumber()) {
          std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(arg->intValue()));
          out += buf;
        } else {
          out += "0x0";
        }
        break;
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
      case 'c': {
        arg = take();
        if (!arg || !arg->isNumber()) {
          out += arg ? arg->description() : "(null)";
          break;
        }
        conversion += (conv == 'd' || conv == 'i') ? "lld" : (conv == 'c' ? "c" : std::string("ll") + conv);
        if (conv == 'c') {
          std::snprintf(buf, sizeof buf, conversion.c_str(), static_cast<int>(arg->intValue()));
        } else if (conv == 'd' || conv == 'i') {
          std::snprintf(buf, sizeof buf, conversion.c_str(), static_cast<long long>(arg->intValue()));
        } else {
          std::snprintf(buf, sizeof buf, conversion.c_str(), static_cast<unsigned long long>(arg->intValue()));
        }
        out += buf;
        break;
      }
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G': {
        arg = take();
        if (!arg || !arg->isNumber()) {
          out += arg ? arg->description() : "(null)";
          break;
        }
        conversion += conv;
        std::snprintf(buf, sizeof buf, conversion.c_str(), arg->doubleValue());
        out += buf;
        break;
      }
      default:
        out += conversion;
        out += conv;
        break;
    }
  }
  return out;
}
