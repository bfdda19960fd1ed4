// Expectations that the tests of several requests share.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "support/requests.h"

namespace cpd::test {

using Texts = std::vector<std::string>;

/// Expects a reply with the request's address and code, exactly this payload, and a buffer of
/// exactly `capacity` bytes.
inline void ExpectReply(const std::optional<SentPacket>& sent, const Request& request,
                        const std::string& payload, uint64_t capacity) {
  ASSERT_TRUE(sent) << "no reply";
  EXPECT_EQ(sent->magic, CPD_PACKET_MAGIC);
  EXPECT_EQ(sent->dev_id, request.dev_id);
  EXPECT_EQ(sent->cmd, request.cmd);
  EXPECT_EQ(sent->request_id, request.request_id);
  EXPECT_EQ(sent->packet_len, CPD_PACKET_HEADER_SIZE + payload.size());
  EXPECT_EQ(sent->big_endian, 0);
  EXPECT_EQ(sent->reserved, (std::array<uint8_t, 3>{}));
  EXPECT_EQ(sent->flags, -1);
  EXPECT_EQ(sent->capacity, capacity);
  EXPECT_TRUE(sent->payload == payload) << "payload of " << sent->payload.size() << " bytes:\n"
                                        << ::testing::PrintToString(sent->payload);
}

/// Expects a trace message to begin with a line of this handler and to end with this text.
inline void ExpectMadeIn(const std::string& handler, const std::string& text,
                         const std::string& message) {
  const std::string begin = "[operator.cpp " + handler + "(";
  const std::string end = ")] " + text;
  ASSERT_TRUE(message.starts_with(begin) && message.ends_with(end) &&
              message.size() > begin.size() + end.size())
      << message;
  const std::string line = message.substr(begin.size(), message.size() - begin.size() - end.size());
  EXPECT_EQ(line.find_first_not_of("0123456789"), std::string::npos) << message;
  EXPECT_NE(line[0], '0') << message;
}

/// A packet's payload as it is now: handlers write results into their request.
inline std::string PayloadOf(const CpdPacket& packet) { return SentPacket(packet).payload; }

}  // namespace cpd::test
