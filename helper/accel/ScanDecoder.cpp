// SPDX-License-Identifier: GPL-3.0-or-later
#include "ScanDecoder.h"

#include <algorithm>
#include <charconv>

namespace bonkwell::accel {
namespace {

void setError(std::string* error, std::string text) {
    if (error) {
        *error = std::move(text);
    }
}

// Reads a decimal number at the front of `text`, advancing it. No sign, no spaces.
std::optional<unsigned> takeNumber(std::string_view& text) {
    unsigned value = 0;
    const char* begin = text.data();
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(begin, end, value);
    if (ec != std::errc{} || ptr == begin) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(ptr - begin));
    return value;
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

}  // namespace

std::optional<ChannelType> parseChannelType(std::string_view text, std::string* error) {
    // sysfs values end in a newline; tolerate surrounding white space.
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    const std::string original(text);
    ChannelType type;
    if (takePrefix(text, "le:")) {
        type.bigEndian = false;
    } else if (takePrefix(text, "be:")) {
        type.bigEndian = true;
    } else {
        setError(error, "type \"" + original + "\" does not start with le: or be:");
        return std::nullopt;
    }
    if (takePrefix(text, "s")) {
        type.isSigned = true;
    } else if (takePrefix(text, "u")) {
        type.isSigned = false;
    } else {
        setError(error, "type \"" + original + "\" has no s/u sign letter");
        return std::nullopt;
    }
    auto bits = takeNumber(text);
    if (!bits || !takePrefix(text, "/")) {
        setError(error, "type \"" + original + "\" has no bits/storagebits");
        return std::nullopt;
    }
    auto storage = takeNumber(text);
    if (!storage) {
        setError(error, "type \"" + original + "\" has no storage size");
        return std::nullopt;
    }
    if (takePrefix(text, "X")) {
        auto repeat = takeNumber(text);
        if (!repeat || *repeat == 0 || *repeat > 64) {
            setError(error, "type \"" + original + "\" has a bad repeat count");
            return std::nullopt;
        }
        type.repeat = *repeat;
    }
    if (takePrefix(text, ">>")) {
        auto shift = takeNumber(text);
        if (!shift) {
            setError(error, "type \"" + original + "\" has a bad shift");
            return std::nullopt;
        }
        type.shift = *shift;
    }
    if (!text.empty()) {
        setError(error, "type \"" + original + "\" has trailing text");
        return std::nullopt;
    }
    if (*storage != 8 && *storage != 16 && *storage != 32 && *storage != 64) {
        setError(error, "type \"" + original + "\" has an unsupported storage size");
        return std::nullopt;
    }
    if (*bits == 0 || *bits > *storage || type.shift >= *storage || type.shift + *bits > *storage) {
        setError(error, "type \"" + original + "\" has bits or shift outside its storage");
        return std::nullopt;
    }
    type.bits = *bits;
    type.storageBits = *storage;
    return type;
}

const ScanChannel* ScanLayout::find(std::string_view name) const {
    for (const auto& channel : channels) {
        if (channel.name == name) {
            return &channel;
        }
    }
    return nullptr;
}

std::optional<ScanLayout> layoutScan(std::vector<ScanChannel> channels, std::string* error) {
    if (channels.empty()) {
        setError(error, "no enabled scan channels");
        return std::nullopt;
    }
    std::sort(channels.begin(), channels.end(),
              [](const ScanChannel& a, const ScanChannel& b) { return a.index < b.index; });
    ScanLayout layout;
    std::size_t offset = 0;
    std::size_t largest = 1;
    for (std::size_t i = 0; i < channels.size(); ++i) {
        if (i > 0 && channels[i].index == channels[i - 1].index) {
            setError(error, "two scan channels share index " + std::to_string(channels[i].index));
            return std::nullopt;
        }
        const std::size_t align = channels[i].type.storageBytes();
        if (align == 0) {
            setError(error, "scan channel " + channels[i].name + " has no storage size");
            return std::nullopt;
        }
        offset = (offset + align - 1) / align * align;
        channels[i].offset = offset;
        offset += channels[i].type.totalBytes();
        largest = std::max(largest, align);
    }
    layout.scanBytes = (offset + largest - 1) / largest * largest;
    layout.channels = std::move(channels);
    return layout;
}

std::optional<std::int64_t> decodeChannel(const ChannelType& type,
                                          std::span<const std::uint8_t> scan, std::size_t offset,
                                          unsigned element) {
    const std::size_t bytes = type.storageBytes();
    if (bytes == 0 || bytes > 8 || type.bits == 0 || type.bits > 64 ||
        type.shift >= type.storageBits || element >= type.repeat) {
        return std::nullopt;
    }
    const std::size_t start = offset + static_cast<std::size_t>(element) * bytes;
    if (start < offset || start > scan.size() || scan.size() - start < bytes) {
        return std::nullopt;
    }
    std::uint64_t raw = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        const std::uint64_t byte = scan[start + i];
        if (type.bigEndian) {
            raw = (raw << 8) | byte;
        } else {
            raw |= byte << (8 * i);
        }
    }
    raw >>= type.shift;
    if (type.bits < 64) {
        raw &= (std::uint64_t{1} << type.bits) - 1;
        if (type.isSigned && (raw & (std::uint64_t{1} << (type.bits - 1)))) {
            raw |= ~((std::uint64_t{1} << type.bits) - 1);
        }
    }
    return static_cast<std::int64_t>(raw);
}

}  // namespace bonkwell::accel
