// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to the Get VCP Feature reply check and compares it with a plain reading of the rules:
// at least 11 bytes, the last byte equal to 0x50 folded with every byte before it, maximum from bytes 6-7 and
// current from bytes 8-9 big-endian. Also checks that every request built from the input folds to zero together
// with the addresses that precede it on the bus.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "LumoraCore/DDCPacket.h"

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::span<const std::uint8_t> bytes(data, size);
    const auto parsed = Lumora::DDC::parseGetVCPReply(bytes);

    bool valid = false;
    if (size >= 11) {
        std::uint8_t fold = 0x50;
        for (std::size_t i = 0; i + 1 < size; ++i)
            fold ^= data[i];
        valid = fold == data[size - 1];
    }
    check(parsed.has_value() == valid);
    if (valid) {
        check(parsed->max == ((unsigned(data[6]) << 8) | data[7]));
        check(parsed->current == ((unsigned(data[8]) << 8) | data[9]));
    }

    if (size >= 3) {
        if (const auto code = Lumora::VCPCode::fromRawValue(data[0])) {
            const std::uint16_t value = static_cast<std::uint16_t>((data[1] << 8) | data[2]);
            for (const auto& request : {Lumora::DDC::getVCPRequest(*code), Lumora::DDC::setVCPRequest(*code, value)}) {
                std::uint8_t fold = 0x6E ^ 0x51;
                for (std::uint8_t b : request)
                    fold ^= b;
                check(fold == 0);
                check(request[2] == data[0]);
            }
        }
    }
    return 0;
}
