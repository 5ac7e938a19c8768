// The hit-bit manager driven through the request directories' own notifications: a recording
// subclass stands in for the chip and logs every processHitBitHwTable call.

#include "VexloL3Common/monitoring/VexloL3HitBit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::Throws;
using ::testing::UnorderedElementsAre;
using Ulo::HitBitConfig;
using Ulo::HitBitConfigDir;
using Ulo::HitBitRequestKey;
using Calls = std::vector<std::string>;

class RecordingHitBitManager : public L3CommonHitBitManager {
 public:
   using L3CommonHitBitManager::L3CommonHitBitManager;

   void processHitBitHwTable(const std::string& dirName, const HitBitRequestKey& key) override {
      calls.push_back(fmt::format("{} {}", dirName, key));
   }
   Calls take() { return std::exchange(calls, {}); }

   Calls calls;
};

Ulo::Ptr<HitBitConfig> config(uint32_t request) {
   auto c = std::make_shared<HitBitConfig>();
   c->requestIs(request);
   return c;
}

class HitBitManagerTest : public ::testing::Test {
 protected:
   void makeManager(bool initialized = true) {
      manager = std::make_unique<RecordingHitBitManager>(root, status);
      manager->initializedIs(initialized);
   }
   // Request directory "client1" in the root, holding request k1 = c1.
   void addClient() {
      root->entryIs("client1", dir);
      dir->hitBitConfigIs(k1, c1);
   }

   const HitBitRequestKey k1{"l3Route", 1};
   const HitBitRequestKey k2{"l3Route", 2};
   const HitBitRequestKey k3{"l3Host", 3};
   Ulo::Ptr<Ulo::HitBitConfigRootDir> root = std::make_shared<Ulo::HitBitConfigRootDir>();
   Ulo::Ptr<Ulo::HitBitStatusDir> status = std::make_shared<Ulo::HitBitStatusDir>();
   Ulo::Ptr<HitBitConfigDir> dir = std::make_shared<HitBitConfigDir>("client1");
   Ulo::Ptr<HitBitConfig> c1 = config(1);
   std::unique_ptr<RecordingHitBitManager> manager;
};

TEST_F(HitBitManagerTest, AddedChildServesEachOutstandingExistingRequest) {
   makeManager();
   dir->hitBitConfigIs(k1, c1);
   dir->hitBitConfigIs(k2, config(0));  // nothing asked
   dir->hitBitConfigIs(k3, config(5));
   Ulo::ScopedTraceCapture cap("VexloL3HitBit");
   root->entryIs("client1", dir);
   EXPECT_THAT(manager->calls, UnorderedElementsAre("client1 l3Route/1", "client1 l3Host/3"));
   EXPECT_TRUE(cap.contains("dirName client1 requestKey l3Route/2"));
}

// Every change of a request is served except to zero; a replaced entry's new config is watched
// and the old one forgotten.
TEST_F(HitBitManagerTest, RequestChangesAndNewEntriesAreServedButZeroIsNot) {
   makeManager();
   addClient();
   c1->requestIs(2);
   c1->requestIs(0);
   c1->requestIs(3);
   dir->hitBitConfigIs(k2, config(0));
   EXPECT_THAT(manager->take(),
               ElementsAre("client1 l3Route/1", "client1 l3Route/1", "client1 l3Route/1"));
   auto newConfig = config(4);
   dir->hitBitConfigIs(k1, newConfig);
   EXPECT_EQ(c1->requestChanged().subscribers(), 0u);
   c1->requestIs(9);
   newConfig->requestIs(5);
   EXPECT_EQ(manager->calls.size(), 2u);
}

// A deleted request, a null handle, a removed child and a destroyed manager give no call and
// drop their watchers.
TEST_F(HitBitManagerTest, DeletedRequestsRemovedChildrenAndDestroyedManagerDropTheirWatchers) {
   makeManager();
   addClient();
   auto c2 = config(1);
   dir->hitBitConfigIs(k2, c2);
   manager->take();
   dir->hitBitConfigDel(k1);
   c1->requestIs(7);
   EXPECT_EQ(c1->requestChanged().subscribers(), 0u);
   dir->hitBitConfigIs(k3, nullptr);  // a request that is not there
   EXPECT_THAT(manager->calls, IsEmpty());
   root->entryDel("client1");
   EXPECT_EQ(dir->hitBitConfigChanged().subscribers(), 0u);
   EXPECT_EQ(c2->requestChanged().subscribers(), 0u);

   addClient();
   manager.reset();
   EXPECT_EQ(root->entryChanged().subscribers() + dir->hitBitConfigChanged().subscribers() +
                 c1->requestChanged().subscribers(),
             0u);
}

// Children present at construction are walked (before initialization) and watched from then on.
TEST_F(HitBitManagerTest, RequestBeforeInitializedIsTracedAndNotRemembered) {
   addClient();
   Ulo::ScopedTraceCapture cap("VexloL3HitBit");
   makeManager(false);
   EXPECT_EQ(cap.texts(), (Calls{"dirName client1 requestKey l3Route/1", "SM not inited"}));
   manager->initializedIs(true);
   EXPECT_THAT(manager->calls, IsEmpty());
   c1->requestIs(2);
   dir->hitBitConfigIs(k3, config(1));
   EXPECT_THAT(manager->calls, ElementsAre("client1 l3Route/1", "client1 l3Host/3"));
}

TEST_F(HitBitManagerTest, NotificationsSwitchedOffAreIgnored) {
   makeManager();
   addClient();
   manager->take();
   manager->hasNotificationActiveIs(false);
   c1->requestIs(2);
   dir->hitBitConfigIs(k2, config(1));
   EXPECT_THAT(manager->calls, IsEmpty());
   manager->hasNotificationActiveIs(true);
   c1->requestIs(3);
   EXPECT_THAT(manager->calls, ElementsAre("client1 l3Route/1"));
}

TEST_F(HitBitManagerTest, UnknownDirNameIsFatal) {
   makeManager();
   root->entryIs("other", std::make_shared<Ulo::Entity>("other"));  // not a request directory
   Ulo::ScopedThrowingAssertHandler guard;
   for (const std::string name : {"nope", "other"}) {
      EXPECT_THAT(
          [&] { manager->handleHitBitRequestUpdate(name, k1); },
          Throws<Ulo::AssertionFailure>(
              AllOf(Field(&Ulo::AssertionFailure::text, "hitBitRootConfig is null for dirName {}"),
                    Field(&Ulo::AssertionFailure::message,
                          "hitBitRootConfig is null for dirName " + name))));
   }
   EXPECT_THAT(manager->calls, IsEmpty());
}

}  // namespace
}  // namespace VexloL3Common
