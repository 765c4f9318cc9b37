// SPDX-License-Identifier: GPL-3.0-or-later
// The helper's command line and the lines it reads on stdin and writes on stdout.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bonkwell::thuzz {

struct Options {
    double minAmplitude = 0.05;  // g
    std::int64_t cooldownMs = 750;
};

enum class ParseOutcome { run, version, usage };

struct ParsedArgs {
    ParseOutcome outcome = ParseOutcome::usage;
    Options options;
    std::string error;  // why the arguments were refused
};

// Accepts exactly "--stdio", "--detect-only", "--min-amplitude" A and "--cooldown" MS, each
// once, in any order (a value follows its flag), or "--version" alone.
ParsedArgs parseArguments(const std::vector<std::string_view>& args);

const char* usageText();

// Limits for values from the command line and from set commands.
inline constexpr double kMaxAmplitude = 16.0;
inline constexpr std::int64_t kMaxCooldownMs = 600000;

// {"cmd":"set","amplitude":A,"cooldown":C}; either value may be missing. Other commands,
// other JSON and non-JSON lines are not set commands.
struct SetCommand {
    std::optional<double> amplitude;
    std::optional<std::int64_t> cooldownMs;
};

// nullopt when the line is not a set command; `error` says why a set command was refused
// (out-of-range or mistyped values) and stays empty for lines that are simply other text.
std::optional<SetCommand> parseSetCommand(std::string_view line, std::string* error = nullptr);

// {"cmd":"samples","on":true} or {"cmd":"samples","on":false}: whether to print one sample
// line per reading of the sensor (for a live graph). nullopt for every other line, including
// a samples command whose "on" is not a boolean.
std::optional<bool> parseSamplesCommand(std::string_view line);

// Splits a byte stream into lines of at most kMaxLine bytes. Longer lines are dropped whole
// (up to their newline) and reported as overlong.
class LineReader {
  public:
    static constexpr std::size_t kMaxLine = 1024;

    // `onLine` gets each complete line without its newline; `onOverlong` is told when a line
    // was dropped.
    LineReader(std::function<void(std::string_view)> onLine, std::function<void()> onOverlong)
        : onLine_(std::move(onLine)), onOverlong_(std::move(onOverlong)) {}

    void feed(std::string_view bytes);
    std::size_t buffered() const { return buffer_.size(); }

  private:
    std::function<void(std::string_view)> onLine_;
    std::function<void()> onOverlong_;
    std::string buffer_;
    bool skipping_ = false;
};

// {"jolt":0.0123} without a newline: the detector's jolt measure for one reading, in g, the
// quantity --min-amplitude applies to. Never has a "slapNumber", so it is never an event.
std::string sampleLine(double jolt);

// {"amplitude":0.3125,"severity":"smack","slapNumber":4} without a newline.
std::string eventLine(double amplitude, std::string_view severity, std::int64_t slapNumber);

}  // namespace bonkwell::thuzz
