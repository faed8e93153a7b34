#include "support/kept.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace {

// FNV-1a, 64 bits.
std::string digest_of(const std::string &text)
{
    uint64_t hash = 0xcbf29ce484222325;
    for (const char c : text)
        hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001b3;
    char digits[17];
    snprintf(digits, sizeof digits, "%016lx", hash);
    return digits;
}

} // namespace

kept_texts::kept_texts(const std::string &path) : m_path(path)
{
    std::ifstream in(path);
    for (std::string name, digest; in >> name >> digest;)
        m_digests[name] = digest;
}

kept_texts::~kept_texts()
{
    if (getenv("ORVSCAN_RECORD") == nullptr)
        return;
    std::ofstream out(m_path);
    for (const auto &[name, digest] : m_digests)
        out << name << ' ' << digest << '\n';
}

void kept_texts::compare(const std::string &name, const std::string &text)
{
    if (const char *folder = getenv("ORVSCAN_TEXTS"); folder != nullptr)
        std::ofstream(folder + ("/" + name)) << text;
    std::string &kept = m_digests[name];
    const std::string digest = digest_of(text);
    if (getenv("ORVSCAN_RECORD") != nullptr)
        kept = digest;
    EXPECT_EQ(digest, kept) << name << " is not what it was; support/kept.h tells how to see it";
}
