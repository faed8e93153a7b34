// Packets to feed the engine with from memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

constexpr size_t BATCH = 2048; // packets; about as much as the program has in its buffer

constexpr unsigned PMT_PID = 0x20;
constexpr unsigned VIDEO_PID = 0x100; // the first stream

class capture_builder;

// A kind of packet. With `full_tables` it wants 32 programmes of 64 streams with PIDs from
// VIDEO_PID on, more than tables of one packet can list; else a batch brings the tables of its
// programme.
struct packet_kind {
    const char *name;
    void (*add)(capture_builder *c, size_t i); // adds packet number `i` of a batch
    bool full_tables;
};

// The kinds there are.
std::span<const packet_kind> packet_kinds();

struct packet_batch {
    std::vector<uint8_t> start;   // to be taken once: tables, and a packet of each stream
    std::vector<uint8_t> packets; // BATCH of them, to be taken again and again
    uint8_t cc_step; // what the counters of `packets` are to be advanced by from time to time
};
packet_batch make_batch(const packet_kind &kind);

// Makes the counters go on from the batch's end at its beginning.
void advance_counters(packet_batch *batch);
