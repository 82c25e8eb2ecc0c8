#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

/// What every target defines: tries one input, ends the program when a promise is broken.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace velahost_fuzz {

/// Tells what is broken and ends the program.
[[noreturn]] void Fail(const std::string& what);

inline void Require(bool holds, const char* what)
{
    if (!holds) {
        Fail(what);
    }
}

/// Takes an input apart; what is missing at its end reads as zeros.
class Input
{
public:
    Input(const std::uint8_t* data, std::size_t size)
        : m_Next(reinterpret_cast<const char*>(data)), m_Left(size)
    {}

    bool IsEmpty() const { return m_Left == 0; }

    /// At most that many bytes.
    std::string Bytes(std::size_t most)
    {
        const std::size_t count = most < m_Left ? most : m_Left;
        std::string bytes(m_Next, count);
        m_Next += count;
        m_Left -= count;
        return bytes;
    }

    std::string Rest() { return Bytes(m_Left); }

    /// A number in host byte order.
    template <typename Number>
    Number Take()
    {
        const std::string bytes = Bytes(sizeof(Number));
        Number number{};
        std::memcpy(&number, bytes.data(), bytes.size());
        return number;
    }

    unsigned int Byte() { return Take<std::uint8_t>(); }

private:
    const char* m_Next;
    std::size_t m_Left;
};

} // namespace velahost_fuzz
