// Builds module scanner replies (see scan_reply.h): used by the scanner program and by the
// tests that hand the host replies of their own.
#pragma once

#include "host/scan_reply.h"

#include <cstdint>
#include <string>

namespace vx::host {

class ReplyWriter {
public:
    ReplyWriter() : bytes_(kReplyMagic, sizeof kReplyMagic) {}
    void Server(const std::string &className, const std::string &name)
    {
        bytes_ += 'S', Text(className), Text(name);
    }
    void Tag(uint32_t word, const std::string &text) { bytes_ += 'T', Word(word), Text(text); }
    void Message(const std::string &text) { bytes_ += 'M', Text(text); }
    void Done(int32_t result) { bytes_ += 'D', Word(static_cast<uint32_t>(result)); }
    const std::string &Bytes() const { return bytes_; }

private:
    void Word(uint32_t word)
    {
        for (int shift = 0; shift < 32; shift += 8)
            bytes_ += static_cast<char>(word >> shift & 0xff);
    }
    // Strings longer than 65535 bytes are cut: the reader refuses them long before that.
    void Text(const std::string &text)
    {
        const size_t length = text.size() < 0xffff ? text.size() : 0xffff;
        bytes_ += static_cast<char>(length & 0xff), bytes_ += static_cast<char>(length >> 8);
        bytes_.append(text, 0, length);
    }
    std::string bytes_;
};

}  // namespace vx::host
