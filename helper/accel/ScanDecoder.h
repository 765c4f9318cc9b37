// SPDX-License-Identifier: GPL-3.0-or-later
// Decoding of IIO buffer scans: the per-channel type strings found in
// scan_elements/*_type and the byte layout of one scan.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace bonkwell::accel {

// "[be|le]:[s|u]bits/storagebits[Xrepeat][>>shift]", e.g. "le:s12/16>>4".
struct ChannelType {
    bool bigEndian = false;
    bool isSigned = true;
    unsigned bits = 0;         // meaningful bits, 1..64
    unsigned storageBits = 0;  // 8, 16, 32 or 64
    unsigned repeat = 1;       // number of consecutive elements
    unsigned shift = 0;        // right shift applied before masking to `bits`

    std::size_t storageBytes() const { return storageBits / 8; }
    std::size_t totalBytes() const { return storageBytes() * repeat; }
};

// Parses a type string; nullopt with a reason in `error` when it is malformed.
std::optional<ChannelType> parseChannelType(std::string_view text, std::string* error = nullptr);

// One enabled channel of a scan.
struct ScanChannel {
    std::string name;  // e.g. "in_accel_x"
    int index = 0;     // scan_elements/<name>_index
    ChannelType type;
    std::size_t offset = 0;  // filled in by layoutScan()
};

struct ScanLayout {
    std::vector<ScanChannel> channels;  // sorted by index
    std::size_t scanBytes = 0;          // padded to the largest field

    const ScanChannel* find(std::string_view name) const;
};

// Orders the channels by index, aligns each field to its own storage size and pads the scan
// to a multiple of its largest field. Fails on duplicate indexes or an empty channel list.
std::optional<ScanLayout> layoutScan(std::vector<ScanChannel> channels,
                                     std::string* error = nullptr);

// Reads element `element` of a channel from one scan: byte order, shift, mask to `bits`, and
// sign extension for signed types. The storage bits above `bits` are never trusted (they may
// hold the neighbouring channel). nullopt when the field would lie outside `scan`.
std::optional<std::int64_t> decodeChannel(const ChannelType& type,
                                          std::span<const std::uint8_t> scan, std::size_t offset,
                                          unsigned element = 0);

}  // namespace bonkwell::accel
