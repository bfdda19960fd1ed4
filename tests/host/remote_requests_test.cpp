// The packets that RemoteFiles sends.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "remote/remote_files.h"
#include "remote/session.h"
#include "support/idle_driver.h"
#include "wire.h"

namespace cpd::host {
namespace {

using std::chrono_literals::operator""s;

/// Records requests and replies to none.
class RecordingDriver : public test::IdleDriver {
 public:
  int onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    requests.push_back(std::move(packet));
    return 0;
  }
  std::vector<std::unique_ptr<CpdPacket>> requests;
};

class RemoteRequests : public testing::Test {
 protected:
  RemoteRequests() { session_.Start(&channel_); }
  ~RemoteRequests() override { session_.Stop(); }

  /// The head of the last request.
  template <class Head>
  Head LastHead() const {
    Head head;
    std::memcpy(&head, driver_.requests.back()->buffer->data + CPD_PACKET_HEADER_SIZE, sizeof head);
    return head;
  }

  RecordingDriver driver_;
  DriverChannel channel_{driver_};
  Session session_{30s};
  RemoteFiles files_{session_};
};

TEST_F(RemoteRequests, AreNotAwaitedAnyMoreThoughPassingTheirOutcomeOnFailed) {
  files_.Create("/file", 0644, [](Outcome) { throw std::bad_alloc(); });
  EXPECT_THROW(session_.Stop(), std::bad_alloc);
  files_.WaitForChanges();
  session_.Stop();
}

TEST_F(RemoteRequests, FillTheirBuffersCompletely) {
  const auto ignore = [](const auto&...) {};
  const std::string path = "/some/file";
  files_.GetAttributes(path, ignore);
  files_.List(path, ignore);
  files_.CheckDirectory(path, Listing(), ignore);
  files_.Read(path, 0, 1U << 20, ignore);
  files_.ReadSmallFiles({{path, 1}, {path, 2}}, ignore);
  files_.GetStatistics(path, ignore);
  files_.HasExtendedAttribute(path, "name", ignore);
  files_.Create(path, 0644, ignore);
  files_.Write(path, 0, std::string(100'000, 'x'), ignore);
  files_.WriteBatch(path, "pieces", ignore);
  files_.Truncate(path, 0, ignore);
  files_.Sync(path, ignore);
  files_.ChangeMode(path, 0644, ignore);
  files_.ChangeOwner(path, 1, 2, ignore);
  files_.MakeDirectory(path, 0755, ignore);
  files_.RemoveDirectory(path, ignore);
  files_.Link(path, "/new", ignore);
  files_.Unlink(path, ignore);
  files_.Rename(path, "/new", ignore);
  files_.Flush(path, ignore);
  files_.Release(path, ignore);
  ASSERT_EQ(driver_.requests.size(), 22U);  // a check sends two
  for (const auto& request : driver_.requests) {
    EXPECT_EQ(request->buffer->capacity, request->header->packetLen) << request->header->cmd;
  }
}

TEST_F(RemoteRequests, NeverSetASetIdBit) {
  const auto ignore = [](Outcome) {};
  files_.Create("/file", 07755, ignore);
  EXPECT_EQ(LastHead<CreateHead>().mode, 01755U);
  files_.ChangeMode("/file", 07644, ignore);
  EXPECT_EQ(LastHead<ChmodHead>().mode, 01644U);
  files_.MakeDirectory("/directory", 07711, ignore);
  EXPECT_EQ(LastHead<MakeDirHead>().mode, 01711);
}

}  // namespace
}  // namespace cpd::host
