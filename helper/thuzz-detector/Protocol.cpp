// SPDX-License-Identifier: GPL-3.0-or-later
#include "Protocol.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <variant>

namespace bonkwell::thuzz {
namespace {

std::optional<double> parseAmplitude(std::string_view text) {
    double value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc{} || ptr != text.data() + text.size() ||
        !std::isfinite(value) || value <= 0.0 || value > kMaxAmplitude) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::int64_t> parseCooldown(std::string_view text) {
    std::int64_t value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc{} || ptr != text.data() + text.size() || value < 0 ||
        value > kMaxCooldownMs) {
        return std::nullopt;
    }
    return value;
}

// A deliberately small JSON reader: one flat object whose values are strings, numbers,
// true, false or null. Anything else is not a command.
using Value = std::variant<std::monostate, double, std::string, bool>;

class FlatObjectParser {
  public:
    explicit FlatObjectParser(std::string_view text) : text_(text) {}

    std::optional<std::map<std::string, Value>> parse() {
        std::map<std::string, Value> members;
        skipSpace();
        if (!take('{')) {
            return std::nullopt;
        }
        skipSpace();
        if (!take('}')) {
            while (true) {
                skipSpace();
                auto key = string();
                skipSpace();
                if (!key || !take(':')) {
                    return std::nullopt;
                }
                skipSpace();
                auto value = this->value();
                if (!value) {
                    return std::nullopt;
                }
                members[*key] = *value;
                skipSpace();
                if (take('}')) {
                    break;
                }
                if (!take(',')) {
                    return std::nullopt;
                }
            }
        }
        skipSpace();
        if (pos_ != text_.size()) {
            return std::nullopt;
        }
        return members;
    }

  private:
    void skipSpace() {
        while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                       text_[pos_] == '\r' || text_[pos_] == '\n')) {
            ++pos_;
        }
    }
    bool take(char c) {
        if (pos_ < text_.size() && text_[pos_] == c) {
            ++pos_;
            return true;
        }
        return false;
    }
    bool takeWord(std::string_view word) {
        if (text_.substr(pos_).starts_with(word)) {
            pos_ += word.size();
            return true;
        }
        return false;
    }
    std::optional<std::string> string() {
        if (!take('"')) {
            return std::nullopt;
        }
        std::string out;
        while (pos_ < text_.size()) {
            const char c = text_[pos_++];
            if (c == '"') {
                return out;
            }
            if (static_cast<unsigned char>(c) < 0x20) {
                return std::nullopt;
            }
            if (c != '\\') {
                out += c;
                continue;
            }
            if (pos_ >= text_.size()) {
                return std::nullopt;
            }
            const char e = text_[pos_++];
            switch (e) {
                case '"':
                    out += '"';
                    break;
                case '\\':
                    out += '\\';
                    break;
                case '/':
                    out += '/';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u': {
                    if (text_.size() - pos_ < 4) {
                        return std::nullopt;
                    }
                    for (int i = 0; i < 4; ++i) {
                        const char h = text_[pos_++];
                        if (!std::isxdigit(static_cast<unsigned char>(h))) {
                            return std::nullopt;
                        }
                    }
                    out += '?';  // command keys and values are plain ASCII
                    break;
                }
                default:
                    return std::nullopt;
            }
        }
        return std::nullopt;
    }
    std::optional<Value> value() {
        if (pos_ >= text_.size()) {
            return std::nullopt;
        }
        const char c = text_[pos_];
        if (c == '"') {
            auto s = string();
            return s ? std::optional<Value>(*s) : std::nullopt;
        }
        if (takeWord("true")) {
            return Value(true);
        }
        if (takeWord("false")) {
            return Value(false);
        }
        if (takeWord("null")) {
            return Value(std::monostate{});
        }
        return number();
    }
    // JSON number grammar: -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
    std::optional<Value> number() {
        const std::size_t start = pos_;
        take('-');
        auto digits = [this] {
            std::size_t n = 0;
            while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
                ++pos_;
                ++n;
            }
            return n;
        };
        const std::size_t intStart = pos_;
        const std::size_t intDigits = digits();
        if (intDigits == 0 || (intDigits > 1 && text_[intStart] == '0')) {
            return std::nullopt;
        }
        if (take('.') && digits() == 0) {
            return std::nullopt;
        }
        if (take('e') || take('E')) {
            if (!take('+')) {
                take('-');
            }
            if (digits() == 0) {
                return std::nullopt;
            }
        }
        double value = 0;
        const std::string_view text = text_.substr(start, pos_ - start);
        auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (ec != std::errc{} || ptr != text.data() + text.size() || !std::isfinite(value)) {
            return std::nullopt;
        }
        return Value(value);
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

}  // namespace

const char* usageText() {
    return "usage: thuzz-detector --stdio --detect-only --min-amplitude G --cooldown MS\n"
           "       thuzz-detector --version\n"
           "  G   minimum slap strength in g (0 < G <= 16), e.g. 0.0500\n"
           "  MS  minimum time between slaps in milliseconds (0..600000)\n";
}

ParsedArgs parseArguments(const std::vector<std::string_view>& args) {
    ParsedArgs parsed;
    if (args.size() == 1 && args[0] == "--version") {
        parsed.outcome = ParseOutcome::version;
        return parsed;
    }
    bool stdio = false;
    bool detectOnly = false;
    bool amplitude = false;
    bool cooldown = false;
    auto refuse = [&parsed](std::string why) {
        parsed.outcome = ParseOutcome::usage;
        parsed.error = std::move(why);
        return parsed;
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg == "--stdio" && !stdio) {
            stdio = true;
        } else if (arg == "--detect-only" && !detectOnly) {
            detectOnly = true;
        } else if ((arg == "--min-amplitude" && !amplitude) || (arg == "--cooldown" && !cooldown)) {
            if (i + 1 >= args.size()) {
                return refuse(std::string(arg) + " needs a value");
            }
            const std::string_view value = args[++i];
            if (arg == "--min-amplitude") {
                auto a = parseAmplitude(value);
                if (!a) {
                    return refuse("bad --min-amplitude value \"" + std::string(value) + "\"");
                }
                parsed.options.minAmplitude = *a;
                amplitude = true;
            } else {
                auto c = parseCooldown(value);
                if (!c) {
                    return refuse("bad --cooldown value \"" + std::string(value) + "\"");
                }
                parsed.options.cooldownMs = *c;
                cooldown = true;
            }
        } else {
            return refuse("unexpected argument \"" + std::string(arg.substr(0, 64)) + "\"");
        }
    }
    if (!stdio || !detectOnly || !amplitude || !cooldown) {
        return refuse("--stdio, --detect-only, --min-amplitude and --cooldown are all required");
    }
    parsed.outcome = ParseOutcome::run;
    return parsed;
}

std::optional<SetCommand> parseSetCommand(std::string_view line, std::string* error) {
    auto members = FlatObjectParser(line).parse();
    if (!members) {
        return std::nullopt;
    }
    auto cmd = members->find("cmd");
    if (cmd == members->end() || !std::holds_alternative<std::string>(cmd->second) ||
        std::get<std::string>(cmd->second) != "set") {
        return std::nullopt;
    }
    SetCommand command;
    auto refuse = [error](const char* why) -> std::optional<SetCommand> {
        if (error) {
            *error = why;
        }
        return std::nullopt;
    };
    if (auto a = members->find("amplitude"); a != members->end()) {
        const double* v = std::get_if<double>(&a->second);
        if (!v || *v <= 0.0 || *v > kMaxAmplitude) {
            return refuse("amplitude must be a number above 0 and at most 16");
        }
        command.amplitude = *v;
    }
    if (auto c = members->find("cooldown"); c != members->end()) {
        const double* v = std::get_if<double>(&c->second);
        if (!v || *v < 0.0 || *v > static_cast<double>(kMaxCooldownMs) || std::trunc(*v) != *v) {
            return refuse("cooldown must be a whole number of milliseconds, 0 to 600000");
        }
        command.cooldownMs = static_cast<std::int64_t>(*v);
    }
    if (!command.amplitude && !command.cooldownMs) {
        return refuse("a set command needs amplitude or cooldown");
    }
    return command;
}

std::optional<bool> parseSamplesCommand(std::string_view line) {
    auto members = FlatObjectParser(line).parse();
    if (!members) {
        return std::nullopt;
    }
    auto cmd = members->find("cmd");
    auto on = members->find("on");
    if (cmd == members->end() || !std::holds_alternative<std::string>(cmd->second) ||
        std::get<std::string>(cmd->second) != "samples" || on == members->end() ||
        !std::holds_alternative<bool>(on->second)) {
        return std::nullopt;
    }
    return std::get<bool>(on->second);
}

void LineReader::feed(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t newline = bytes.find('\n');
        const std::string_view part = bytes.substr(0, newline);
        if (!skipping_) {
            if (buffer_.size() + part.size() > kMaxLine) {
                buffer_.clear();
                skipping_ = true;
            } else {
                buffer_.append(part);
            }
        }
        if (newline == std::string_view::npos) {
            return;
        }
        bytes.remove_prefix(newline + 1);
        if (skipping_) {
            skipping_ = false;
            if (onOverlong_) {
                onOverlong_();
            }
        } else {
            const std::string line = std::move(buffer_);
            buffer_.clear();
            if (onLine_) {
                onLine_(line);
            }
        }
    }
}

std::string sampleLine(double jolt) {
    if (!std::isfinite(jolt)) {
        jolt = 0.0;
    }
    char text[64];
    std::snprintf(text, sizeof text, "{\"jolt\":%.4f}", std::clamp(jolt, 0.0, 99.0));
    return text;
}

std::string eventLine(double amplitude, std::string_view severity, std::int64_t slapNumber) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "{\"amplitude\":%.4f,\"severity\":\"%.*s\",\"slapNumber\":%lld}", amplitude,
                  static_cast<int>(std::min<std::size_t>(severity.size(), 32)), severity.data(),
                  static_cast<long long>(slapNumber));
    return text;
}

}  // namespace bonkwell::thuzz
