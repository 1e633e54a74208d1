// The envelope of every profiling message: the type's name in front of its protobuf bytes, so
// that a reader can make a message of the right type without knowing which one comes.
//
//     0          4                        4 + nameLen
//     | nameLen  | full type name, zero   | protobuf bytes, up to the end of the buffer
//
// nameLen is big-endian and counts the terminating zero. There is no check sum, no version and
// no length of the protobuf bytes: the packet around the envelope bounds it.
//
// The codec is used by request threads, receivers, every producer of an uploader's queue and
// the host tool. It keeps no state; all operations may run at the same time on any threads, on
// different messages. No operation throws: a failure is a log line of the profiling agent and
// an empty or null result.
#pragma once

#include <google/protobuf/message.h>

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace analysis::nedra::message {

constexpr size_t kMaxTypeName = 1024;                // characters, without the terminating zero
constexpr size_t kMaxEnvelope = 128u * 1024 * 1024;  // bytes that the decoder looks at
constexpr size_t kMaxCommand = 4u * 1024 * 1024;     // bytes of a command; real ones have some KiB

// The envelope of `message`; empty on failure.
[[nodiscard]] std::string EncodeMessage(const std::shared_ptr<google::protobuf::Message>& message);

// The same in a string of its own, to travel by its pointer; null on failure.
[[nodiscard]] std::shared_ptr<std::string> EncodeMessageShared(
    const std::shared_ptr<google::protobuf::Message>& message);

// Appends the envelope to `buffer`, whose present bytes (room for what goes in front of the
// envelope) and capacity are kept: the way to encode bulk data without another copy and without
// a fresh block for each message. False on failure, with `buffer` as it was.
[[nodiscard]] bool AppendEnvelope(const google::protobuf::Message& message, std::string* buffer);

// The message in an envelope, of the type that the envelope names; null on failure. The bytes
// are foreign: nothing about them is trusted, and they are parsed where they lie.
[[nodiscard]] std::shared_ptr<google::protobuf::Message> DecodeMessage(std::string_view buffer);

using Types = std::initializer_list<const google::protobuf::Descriptor*>;

// The same for a reader that acts on a few types only: null, with a log line, also for an envelope
// of another type or of more than `maxSize` bytes. A message may take 70 times the memory of its
// envelope, so one that nobody wants is not built.
[[nodiscard]] std::shared_ptr<google::protobuf::Message> DecodeOneOf(Types types, size_t maxSize,
                                                                     std::string_view buffer);

// The type that an envelope names; null for one that is none, or names no type of the schema.
// Nothing after the name is looked at.
[[nodiscard]] const google::protobuf::Descriptor* TypeOf(std::string_view buffer);

// A new, empty message of the type with that full name; null when there is none. The name ends
// at its first zero byte.
[[nodiscard]] std::shared_ptr<google::protobuf::Message> CreateMessage(std::string_view name);

}  // namespace analysis::nedra::message
