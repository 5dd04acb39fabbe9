// Drives commands of up to 8191 bytes through the password expansion of CMD: either the input
// bytes as they are, or commands assembled from markers, digit runs of every length, real
// scrambled passwords, shell syntax (quotes, here-documents, expansions, comments) and random
// bytes. Checks that the result stays inside its area and is terminated, is never more than
// twice as long as the command, leaves a command without markers unchanged, that a refused
// command leaves a wiped area, and that every real password of bytes that need no quoting
// comes out in clear, in order. The area is exactly ExpandedCmdSize bytes, so a write past it
// is caught.
#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "messenger/command_exec.h"
#include "scramble/scramble.h"

namespace {

constexpr size_t kCommandMax = 8191;

bool HasMarker(const std::string& s) {
  return s.find("--10") != std::string::npos || s.find(
                                                    "\xAD\xAD"
                                                    "10") != std::string::npos;
}

std::string Scrambled(const std::string& value, bool magic) {
  char text[ScrambledTextSize(127)];
  ZUSTRNG_EnMaxim2(text, value.c_str(), kCommandPasswordKey);
  if (!magic) std::memcpy(text, "--", 2);
  return text;
}

void Check(const std::string& command, const std::vector<std::string>& clear_values) {
  std::vector<char> result(ExpandedCmdSize(command.size()));
  size_t len = 0;
  if (expandCmd(command, result.data(), result.size(), &len) != 0) {
    if (!HasMarker(command)) abort();
    for (char c : result)
      if (c != '\0') abort();
    return;
  }
  if (len > 2 * command.size() || result[len] != '\0') abort();
  const std::string out(result.data(), len);
  if (!HasMarker(command) && out != command) abort();
  size_t from = 0;
  for (const std::string& value : clear_values) {
    from = out.find(value, from);
    if (from == std::string::npos) abort();
    from += value.size();
  }
}

std::string Digits(FuzzedDataProvider& in, size_t n) {
  static constexpr char kHex[] = "0123456789abcdefABCDEF";
  std::string d;
  for (size_t i = 0; i < n; ++i)
    d += kHex[in.ConsumeIntegralInRange<size_t>(0, 21)];
  return d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  if (in.ConsumeBool()) {
    std::string raw = in.ConsumeRemainingBytesAsString();
    if (raw.size() > kCommandMax) raw.resize(kCommandMax);
    Check(raw, {});
    return 0;
  }
  std::string command;
  std::vector<std::string> clear_values;
  while (in.remaining_bytes() > 0 && command.size() < kCommandMax) {
    std::string piece;
    switch (in.ConsumeIntegralInRange(0, 5)) {
      case 0:
        piece = in.ConsumeBool() ? "--10"
                                 : "\xAD\xAD"
                                   "10";
        break;
      case 1:
        piece = (in.ConsumeBool() ? "--10"
                                  : "\xAD\xAD"
                                    "10") +
                Digits(in, in.ConsumeIntegralInRange<size_t>(0, 300));
        break;
      case 2:
        piece = in.ConsumeRandomLengthString(64);
        break;
      case 3: {
        // A real password of any bytes; one that needs no quoting must come out in clear.
        std::string value = in.ConsumeRandomLengthString(119);
        for (char& c : value)
          if (c == '\0') c = '\n';
        bool inert = true;
        for (char c : value)
          inert = inert && (isalnum(static_cast<unsigned char>(c)) || strchr("_./:@+,-", c));
        // A blank ends its digits: a hexadecimal digit next to it would belong to the run.
        piece = Scrambled(value, in.ConsumeBool()) + " ";
        if (inert && command.size() + piece.size() <= kCommandMax) clear_values.push_back(value);
        break;
      }
      case 4: {
        // Shell syntax around the markers.
        static constexpr const char* kSyntax[] = {
            "'",       "\"",      "\\",  "$", "$(", "$((",     "${",        ")",
            "))",      "}",       "`",   "#", "\n", "<<EOF\n", "<<'EOF'\n", "<<-E\n",
            "\nEOF\n", "\n\tE\n", "<<<", ";", "(",  "\t"};
        piece = kSyntax[in.ConsumeIntegralInRange<size_t>(0, std::size(kSyntax) - 1)];
        break;
      }
      default:
        piece = " ";
        break;
    }
    if (command.size() + piece.size() > kCommandMax) break;
    command += piece;
  }
  Check(command, clear_values);
  return 0;
}
