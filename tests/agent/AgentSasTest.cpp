// The SAs of a data path that follows the machine's table: which one sends and receives, what the
// counter table says, and the nonce word, while SAs come, are installed late, change and go.
#include <optional>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/agent/AgentSas.h"
#include "host/runtime/VirtualTime.h"

namespace tessel {
namespace {

using testing::ElementsAre;

class AgentSasTest : public testing::Test {
 protected:
  AgentSasTest() { start(); }

  void start() {
    sas_.emplace(
        entities_,
        [this](const Ptr<const AgentSa>& sa) {
          told_.push_back("new " + spiText(sa->key.spi));
          if (atOnce_) {
            sas_->installedIs(*sa);
          }
          last_ = sa;
        },
        [this](const Ptr<const AgentSa>& sa) {
          told_.push_back("gone " + spiText(sa->key.spi));
          EXPECT_FALSE(sa->installed());
        });
  }

  static ConnectionKey path(uint32_t number) {
    return {0, IpGenAddr::fromV4(0x0A000001), IpGenAddr::fromV4(0x0A000002), number};
  }
  static SecurityAssociationKey keyOf(uint32_t spi, uint32_t number) {
    return {spi, IpGenAddr::fromV4(0x0A000002), 50, number, 2};
  }
  /// As the machine hands an SA over; the path's number is its request id.
  Ptr<Ike::SecurityAssociation> handOver(SaType type, uint32_t spi, uint32_t number = 1) const {
    const auto sa = makePtr<Ike::SecurityAssociation>(keyOf(spi, number));
    sa->saTypeIs(type);
    entities_.tesselV1->cpSaIs(sa->sakey(), path(number));
    entities_.tesselV1->saIs(sa);
    return sa;
  }
  /// As the machine takes one away: its path is forgotten first.
  void remove(uint32_t spi, uint32_t number = 1) const {
    entities_.tesselV1->cpSaDel(keyOf(spi, number));
    entities_.tesselV1->saDel(keyOf(spi, number));
  }
  uint32_t sendingSpi(uint32_t number = 1) const {
    const AgentSa* const sa = sas_->sendingSa(path(number));
    return sa != nullptr ? sa->key.spi : 0;
  }
  bool receives(uint32_t spi, uint32_t number = 1) const {
    const AgentSa* const sa = sas_->receivingSa(path(number), spi);
    EXPECT_TRUE(sa == nullptr || sa->key == keyOf(spi, number));
    return sa != nullptr;
  }
  const IpsecCounters::IpsecSACounterEntry& entry(uint32_t spi, uint32_t number = 1) const {
    return entities_.ipsecCounterTable->saCounterEntry(keyOf(spi, number));
  }
  uint64_t utcNow() const { return static_cast<uint64_t>(time_->utcTime().seconds()); }

  const Ptr<VirtualTime> time_ = makePtr<VirtualTime>();
  const AgentEntities entities_{*time_};
  bool atOnce_ = true;
  std::vector<std::string> told_;
  Ptr<const AgentSa> last_;
  std::optional<AgentSas> sas_;
};

TEST_F(AgentSasTest, APathSendsOnTheInstalledSaThatWasHandedOverLast) {
  handOver(SaType::steadyIn, 0x10);
  handOver(SaType::steadyOut, 0x20);
  handOver(SaType::steadyOut, 0x20, 2);  // Another path between the same addresses.
  EXPECT_EQ(sendingSpi(), 0x20U);
  EXPECT_TRUE(receives(0x10));
  EXPECT_FALSE(receives(0x20)) << "an out-SA";
  EXPECT_FALSE(receives(0x10, 2)) << "an SA of another path";

  // Two more, installed in the other order.
  atOnce_ = false;
  handOver(SaType::saRekeyOut, 0x21);
  const Ptr<const AgentSa> first = last_;
  handOver(SaType::dhRekeyOut, 0x22);
  EXPECT_EQ(sendingSpi(), 0x20U);
  sas_->installedIs(*last_);
  EXPECT_EQ(sendingSpi(), 0x22U);
  sas_->installedIs(*first);
  EXPECT_EQ(sendingSpi(), 0x22U);
  remove(0x22);
  EXPECT_EQ(sendingSpi(), 0x21U);
  EXPECT_EQ(sendingSpi(2), 0x20U);
}

TEST_F(AgentSasTest, AnSaHasItsCounterEntryFromInstallationToRemoval) {
  atOnce_ = false;
  const auto& counters = *entities_.ipsecCounterTable;
  handOver(SaType::steadyIn, 0x10);
  handOver(SaType::steadyOut, 0x20);
  sas_->countSent(*last_, 5);
  EXPECT_EQ(counters.saCounterEntries() + counters.sessionCounterEntries(), 0U);

  time_->runFor(seconds(3.7));
  const uint64_t installed = utcNow();
  sas_->installedIs(*last_);
  time_->runFor(seconds(10));
  sas_->installedIs(*last_);
  sas_->countSent(*last_, 100);
  sas_->countSent(*last_, 11);
  EXPECT_EQ(entry(0x20), (IpsecCounters::IpsecSACounterEntry{
                             .nonceWord = 0, .addTime = installed, .pkts = 2, .bytes = 111}));
  EXPECT_FALSE(receives(0x10));
  EXPECT_EQ(counters.saCounterEntries(), 1U);

  atOnce_ = true;
  handOver(SaType::saRekeyIn, 0x11);
  sas_->countReceived(*last_, 7, 0x1A2B3C4D);
  sas_->countReceived(*last_, 7, 0);
  EXPECT_EQ(entry(0x11),
            (IpsecCounters::IpsecSACounterEntry{
                .nonceWord = 0x1A2B3C4D, .addTime = utcNow(), .pkts = 2, .bytes = 14}));
  EXPECT_EQ(counters.sessionCounterEntry(1),
            (IpsecCounters::IpsecSessionCounterEntry{.pktsIn = 2, .pktsOut = 2}));

  remove(0x20);
  remove(0x10);
  EXPECT_EQ(counters.sessionCounterEntries(), 1U) << "the path has an SA still";
  remove(0x11);
  sas_->countReceived(*last_, 7, 0);
  EXPECT_EQ(counters.saCounterEntries() + counters.sessionCounterEntries(), 0U);
  EXPECT_THAT(told_, ElementsAre("new 0x00000010", "new 0x00000020", "new 0x00000011",
                                 "gone 0x00000020", "gone 0x00000010", "gone 0x00000011"));
}

// The installation of an SA ends when another one has its key.
TEST_F(AgentSasTest, ALateInstallationDoesNotCountForTheNextSaOfThatKey) {
  atOnce_ = false;
  handOver(SaType::steadyOut, 0x20);
  const Ptr<const AgentSa> old = last_;
  remove(0x20);
  handOver(SaType::steadyOut, 0x20);
  sas_->installedIs(*old);
  EXPECT_EQ(sendingSpi(), 0U);
  EXPECT_EQ(entities_.ipsecCounterTable->saCounterEntries(), 0U);
  sas_->installedIs(*last_);
  EXPECT_EQ(sas_->sendingSa(path(1)), last_.get());
}

TEST_F(AgentSasTest, TheNonceWordIsTheOneThatTheRekeyBeganWith) {
  const auto out = handOver(SaType::steadyOut, 0x20);
  const Ptr<const AgentSa> sa = last_;
  out->nonceIs(htonl(0x11223344));
  EXPECT_EQ(sa->nonceWord(), 0U);
  out->rekeyIs(true);
  EXPECT_EQ(sa->nonceWord(), 0x11223344U);
  out->nonceIs(htonl(0x55667788));
  EXPECT_EQ(sa->nonceWord(), 0x11223344U);
  out->rekeyIs(false);
  EXPECT_EQ(sa->nonceWord(), 0U);

  // The same SA as another object: it keeps its place and its counters, and is told of nobody.
  handOver(SaType::saRekeyOut, 0x21);
  sas_->countSent(*sa, 9);
  const auto again = makePtr<Ike::SecurityAssociation>(out->sakey());
  again->saTypeIs(SaType::steadyOut);
  again->nonceIs(htonl(0x0A0B0C0D));
  again->rekeyIs(true);
  entities_.tesselV1->saIs(again);
  EXPECT_EQ(sa->nonceWord(), 0x0A0B0C0DU);
  EXPECT_EQ(&sa->attributes(), again.get());
  EXPECT_EQ(sendingSpi(), 0x21U);
  EXPECT_EQ(entry(0x20).bytes, 9U);
  out->rekeyIs(true);
  EXPECT_EQ(sa->nonceWord(), 0x0A0B0C0DU);
  EXPECT_EQ(told_.size(), 2U);
}

TEST_F(AgentSasTest, MadeAgainItTakesOverWhatIsThere) {
  handOver(SaType::steadyIn, 0x10);
  handOver(SaType::steadyOut, 0x20);
  told_.clear();
  sas_.reset();
  EXPECT_EQ(entities_.ipsecCounterTable->saCounterEntries(), 0U);
  EXPECT_EQ(entities_.ipsecCounterTable->sessionCounterEntries(), 0U);
  EXPECT_THAT(told_, ElementsAre());
  atOnce_ = false;
  start();
  EXPECT_THAT(told_, ElementsAre("new 0x00000010", "new 0x00000020"));
  sas_->installedIs(*last_);
  EXPECT_EQ(sendingSpi(), 0x20U);
}

}  // namespace
}  // namespace tessel
