// The hit-bit manager driven through the request directories' own notifications: a recording
// subclass stands in for the chip, logs every processHitBitHwTable call and publishes an answer.

#include "VexloL3Common/VexloL3HitBit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {
namespace {

using ::testing::ElementsAre;
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
      const uint32_t request =
          std::dynamic_pointer_cast<const HitBitConfigDir>(hitBitConfigRootDir()->entry(dirName))
              ->hitBitConfig(key)
              ->request();
      hitBitStatusDir()->hitBitStatusIs({dirName, key}, Ulo::HitBitStatus{request, true});
   }

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
   Ulo::Ptr<HitBitConfigDir> addDir(const std::string& name) {
      auto d = std::make_shared<HitBitConfigDir>(name);
      root->entryIs(name, d);
      return d;
   }

   const HitBitRequestKey k1{"l3Route", 1};
   const HitBitRequestKey k2{"l3Route", 2};
   const HitBitRequestKey k3{"l3Host", 3};
   Ulo::Ptr<Ulo::HitBitConfigRootDir> root = std::make_shared<Ulo::HitBitConfigRootDir>();
   Ulo::Ptr<Ulo::HitBitStatusDir> status = std::make_shared<Ulo::HitBitStatusDir>();
   std::unique_ptr<RecordingHitBitManager> manager;
};

TEST_F(HitBitManagerTest, AddedChildServesEachOutstandingExistingRequest) {
   makeManager();
   auto dir = std::make_shared<HitBitConfigDir>("client1");
   dir->hitBitConfigIs(k1, config(1));
   dir->hitBitConfigIs(k2, config(0));  // nothing asked
   dir->hitBitConfigIs(k3, config(5));
   Ulo::ScopedTraceCapture cap("VexloL3HitBit");
   root->entryIs("client1", dir);
   EXPECT_THAT(manager->calls, UnorderedElementsAre("client1 l3Route/1", "client1 l3Host/3"));
   EXPECT_TRUE(cap.contains("dirName client1 requestKey l3Route/2"));
   EXPECT_EQ((status->hitBitStatus({"client1", k3})), (Ulo::HitBitStatus{5, true}));
}

TEST_F(HitBitManagerTest, RequestChangesAndNewEntriesAreServedButZeroIsNot) {
   makeManager();
   auto dir = addDir("client1");
   auto c1 = config(1);
   dir->hitBitConfigIs(k1, c1);
   c1->requestIs(2);
   c1->requestIs(0);
   c1->requestIs(3);
   dir->hitBitConfigIs(k2, config(0));
   EXPECT_THAT(manager->calls,
               ElementsAre("client1 l3Route/1", "client1 l3Route/1", "client1 l3Route/1"));
   EXPECT_EQ(status->hitBitStatus({"client1", k1}).request, 3u);
}

TEST_F(HitBitManagerTest, ReplacedEntryIsWatchedAndTheOldConfigForgotten) {
   makeManager();
   auto dir = addDir("client1");
   auto oldConfig = config(1);
   dir->hitBitConfigIs(k1, oldConfig);
   auto newConfig = config(4);
   dir->hitBitConfigIs(k1, newConfig);
   EXPECT_EQ(oldConfig->requestChanged().subscribers(), 0u);
   oldConfig->requestIs(9);
   newConfig->requestIs(5);
   EXPECT_EQ(manager->calls.size(), 3u);
   EXPECT_EQ(status->hitBitStatus({"client1", k1}).request, 5u);
}

TEST_F(HitBitManagerTest, DeletedRequestGivesNoCallAndDropsItsWatcher) {
   makeManager();
   auto dir = addDir("client1");
   auto c1 = config(1);
   dir->hitBitConfigIs(k1, c1);
   manager->calls.clear();
   dir->hitBitConfigDel(k1);
   c1->requestIs(7);
   EXPECT_TRUE(manager->calls.empty());
   EXPECT_EQ(c1->requestChanged().subscribers(), 0u);
   // A null handle is a request that is not there.
   dir->hitBitConfigIs(k2, nullptr);
   EXPECT_TRUE(manager->calls.empty());
}

TEST_F(HitBitManagerTest, RemovedChildDropsAllItsWatchers) {
   makeManager();
   auto dir = addDir("client1");
   auto c1 = config(1);
   dir->hitBitConfigIs(k1, c1);
   manager->calls.clear();
   root->entryDel("client1");
   EXPECT_EQ(dir->hitBitConfigChanged().subscribers(), 0u);
   EXPECT_EQ(c1->requestChanged().subscribers(), 0u);
   c1->requestIs(2);
   dir->hitBitConfigIs(k2, config(1));
   EXPECT_TRUE(manager->calls.empty());
}

TEST_F(HitBitManagerTest, RequestBeforeInitializedIsTracedAndNotRemembered) {
   makeManager(false);
   auto dir = addDir("client1");
   auto c1 = config(1);
   Ulo::ScopedTraceCapture cap("VexloL3HitBit");
   dir->hitBitConfigIs(k1, c1);
   EXPECT_EQ(cap.texts(), (Calls{"dirName client1 requestKey l3Route/1", "SM not inited"}));
   manager->initializedIs(true);
   EXPECT_TRUE(manager->calls.empty());
   c1->requestIs(2);
   EXPECT_THAT(manager->calls, ElementsAre("client1 l3Route/1"));
}

TEST_F(HitBitManagerTest, ChildrenPresentAtConstructionAreWatched) {
   auto dir = addDir("client1");
   auto c1 = config(1);
   dir->hitBitConfigIs(k1, c1);
   makeManager();
   EXPECT_TRUE(manager->calls.empty());  // walked before initialized
   c1->requestIs(2);
   dir->hitBitConfigIs(k3, config(1));
   EXPECT_THAT(manager->calls, ElementsAre("client1 l3Route/1", "client1 l3Host/3"));
}

TEST_F(HitBitManagerTest, NotificationsSwitchedOffAreIgnored) {
   makeManager();
   auto dir = addDir("client1");
   auto c1 = config(1);
   dir->hitBitConfigIs(k1, c1);
   manager->calls.clear();
   manager->hasNotificationActiveIs(false);
   c1->requestIs(2);
   dir->hitBitConfigIs(k2, config(1));
   EXPECT_TRUE(manager->calls.empty());
   manager->hasNotificationActiveIs(true);
   c1->requestIs(3);
   EXPECT_THAT(manager->calls, ElementsAre("client1 l3Route/1"));
}

TEST_F(HitBitManagerTest, UnknownDirNameIsFatal) {
   makeManager();
   root->entryIs("other", std::make_shared<Ulo::Entity>("other"));  // not a request directory
   Ulo::ScopedThrowingAssertHandler guard;
   for (const char* name : {"nope", "other"}) {
      try {
         manager->handleHitBitRequestUpdate(name, k1);
         FAIL() << "no assertion for " << name;
      } catch (const Ulo::AssertionFailure& e) {
         EXPECT_EQ(e.text, "hitBitRootConfig is null for dirName {}");
         EXPECT_EQ(e.message, std::string("hitBitRootConfig is null for dirName ") + name);
      }
   }
   EXPECT_TRUE(manager->calls.empty());
}

TEST_F(HitBitManagerTest, DestroyedManagerLeavesNoWatchers) {
   makeManager();
   auto dir = addDir("client1");
   auto c1 = config(1);
   dir->hitBitConfigIs(k1, c1);
   manager.reset();
   EXPECT_EQ(root->entryChanged().subscribers(), 0u);
   EXPECT_EQ(dir->hitBitConfigChanged().subscribers(), 0u);
   EXPECT_EQ(c1->requestChanged().subscribers(), 0u);
   c1->requestIs(2);  // nobody left to call
}

}  // namespace
}  // namespace VexloL3Common
