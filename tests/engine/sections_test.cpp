// Gathering of sections, from packets as they should be and as they should not.

#include "tsanalyze/sections.h"

#include "support/capture.h"

#include <gtest/gtest.h>

namespace {

constexpr unsigned PID = 0x100;

typedef std::vector<octets> packets;
typedef std::array<uint64_t, SECTION_FAULTS> faults;

octets section_of(size_t size) // 16 bytes or more
{
    return make_pmt_section({.descriptors = octets(size - 16, static_cast<uint8_t>(size / 3))});
}

octets private_section(size_t size, unsigned flags)
{
    octets out(size, 2);
    out[0] = 0x70;
    out[1] = static_cast<uint8_t>(flags | (size - 3) >> 8);
    out[2] = static_cast<uint8_t>(size - 3);
    return out;
}

packets packets_of(const std::vector<octets> &sections)
{
    capture_builder c;
    c.sections(PID, sections);
    packets out;
    for (size_t i = 0; i < c.count(); ++i)
        out.emplace_back(c.at(i), c.at(i) + PKT_SIZE);
    return out;
}

std::vector<octets> gathered(section_gatherer *g, const packets &in)
{
    std::vector<octets> out;
    for (const octets &pkt : in) {
        g->take(read_header(pkt.data()), pkt.data());
        for (auto s = g->next(); !s.empty(); s = g->next())
            out.emplace_back(s.begin(), s.end());
    }
    return out;
}

TEST(sections, come_out_as_they_went_in_wherever_packets_end)
{
    for (const size_t size : {16U, 184U, 1024U})
        for (size_t ahead = 16; ahead < 16 + PKT_SIZE; ++ahead) {
            const octets a = section_of(ahead), b = section_of(size), c = make_pat_section({});
            const packets in =
                packets_of({a, b, c, private_section(4096, 0x70), b, b, private_section(3, 0x70),
                            private_section(4096, 0xf0), private_section(185, 0x70), a});
            section_gatherer g;
            ASSERT_EQ(gathered(&g, in), (packets{a, b, c, b, b, a})) << size << " behind " << ahead;
            ASSERT_EQ(g.refused(), faults{});
        }
}

TEST(sections, broken_packets_cost_the_sections_they_break)
{
    const struct {
        const char *name;
        std::string_view order; // of packets 0 to 2, with section a, and 3, with b
        struct {
            size_t packet, at, removed;
            octets inserted;
        } change;
        std::string_view out;
        faults refused{};
    } cases[] = {
        {"joined midway", "123", {}, "b"},
        {"lost", "023", {}, "b", {1}},
        {"the end lost", "013", {}, "b", {1}},
        {"each packet twice", "00112233", {}, "ab"},
        {"three times", "011123", {}, "b", {1}},
        {"another of the same counter", "01123", {2, 99, 1, {7}}, "b", {1}},
        {"no payload in between", "01123", {1, 3, 1, {0x2f}}, "ab"},
        {"no room for a payload", "0123", {2, 3, 2, {0x32, 255}}, "b", {1}},
        {"no room for a pointer", "0123", {3, 3, 2, {0x30, 255}}, "a", {0, 1}},
        {"discontinuity in front", "0123", {3, 3, 1, {0x3b, 1, 0x80}}, "ab"},
        {"discontinuity within", "0123", {2, 3, 1, {0x32, 1, 0x80}}, "b", {1}},
        {"an adaptation field", "0123", {2, 3, 1, {0x32, 1, 0}}, "ab"},
        {"begun anew", "0023", {1, 3, 1, {0x11}}, "b", {2}},
        {"a pointer to the end", "0123", {2, 1, 3, {0x41, 0, 0x12, 33}}, "ab"},
        {"a pointer behind the end", "0123", {2, 1, 3, {0x41, 0, 0x12, 34}}, "b", {1}},
        {"a pointer to the last byte", "0123", {2, 1, 3, {0x41, 0, 0x12, 182}}, "b", {1}},
        {"a pointer past the packet", "0123", {2, 1, 3, {0x41, 0, 0x12, 183}}, "b", {1, 1}},
        {"1025 bytes", "0123", {0, 5, 3, {0, 0xb3, 0xfe}}, "b", {0, 1}},
        {"1025 bytes of DSM-CC", "0123", {0, 5, 3, {0x38, 0xb3, 0xfe}}, "b"},
        {"4097 private bytes", "0123", {0, 5, 3, {0x40, 0x3f, 0xfe}}, "b", {0, 1}},
        {"11 bytes", "0123", {3, 5, 3, {2, 0xb0, 8}}, "a", {0, 1}},
        {"stuffing", "0123", {3, 5, 1, {0xff}}, "a"},
        {"a wrong byte", "0123", {2, 4, 1, {7}}, "b", {0, 0, 1}},
        {"a wrong byte within a packet", "0123", {3, 20, 1, {7}}, "a", {0, 0, 1}},
        {"a wrong byte in the second of two", "01233", {4, 20, 1, {7}}, "ab", {0, 0, 1}},
    };
    const octets a = section_of(400), b = section_of(100);
    packets sent = packets_of({a});
    sent.push_back(packets_of({b})[0]);
    sent[3][3] |= 3;
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        packets in, out;
        for (const char index : test.order)
            in.push_back(sent[static_cast<size_t>(index - '0')]);
        octets &pkt = in[test.change.packet];
        const auto at = pkt.begin() + static_cast<ptrdiff_t>(test.change.at);
        const auto rest = pkt.erase(at, at + static_cast<ptrdiff_t>(test.change.removed));
        pkt.insert(rest, test.change.inserted.begin(), test.change.inserted.end());
        pkt.resize(PKT_SIZE);
        for (const char name : test.out)
            out.push_back(name == 'a' ? a : b);
        section_gatherer g;
        EXPECT_EQ(gathered(&g, in), out);
        EXPECT_EQ(g.refused(), test.refused);
    }
}

TEST(sections, not_asked_for_are_gone_and_what_is_open_can_be_forgotten)
{
    const octets a = section_of(400), b = section_of(100);
    const packets in = packets_of({b, a}); // three; a begins in the first of them
    section_gatherer g;
    g.take(read_header(in[0].data()), in[0].data());
    EXPECT_EQ(gathered(&g, {in[1], in[2]}), packets{a});
    EXPECT_EQ(gathered(&g, {in[0], in[1]}), packets{b});
    g.reset();
    EXPECT_EQ(gathered(&g, {in[2]}), packets{});
    EXPECT_EQ(g.refused(), faults{});
    // One byte is as open as more, whatever was before.
    gathered(&g, packets_of({private_section(400, 0x70)}));
    EXPECT_EQ(gathered(&g, {packets_of({section_of(182), b})[0], in[0]}).size(), 2U);
    EXPECT_EQ(g.refused(), faults{1});
}

TEST(sections, that_are_no_news_are_taken_again_in_sequence)
{
    const packets whole = packets_of({section_of(100)}), open = packets_of({section_of(400)});
    packets wrong = whole;
    wrong[0][20] ^= 1;
    section_gatherer g;
    const auto again = [&g](octets pkt, unsigned cc) {
        pkt[3] = static_cast<uint8_t>(0x10 | cc);
        return g.take_again(read_header(pkt.data()), pkt.data());
    };
    for (const packets &in : {wrong, packets{open[0]}, packets{whole[0], whole[0]}}) {
        g.reset();
        gathered(&g, in);
        g.settle();
        EXPECT_FALSE(again(in[0], 1));
    }
    g.reset();
    gathered(&g, whole);
    EXPECT_FALSE(again(whole[0], 1));
    g.settle();
    EXPECT_TRUE(again(whole[0], 1));
    EXPECT_FALSE(again(whole[0], 1));
    EXPECT_FALSE(again(wrong[0], 2));
    EXPECT_TRUE(again(whole[0], 2));
    g.unsettle();
    EXPECT_FALSE(again(whole[0], 3));
}

} // namespace
