// The nonces of an SA rekey, on one side: what stops them, and that it stops nothing else.
#include "sm/SaRekey.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class NonceExchangeTest : public MachineTest {
 protected:
  NonceExchangeTest() : key_(establish(peer_)) {
    run(61);
    pass(key_);
    run(61);
    EXPECT_EQ(path(key_)->pathState(), DynamicPathState::active);
    out_ = sa(key_, SaType::steadyOut);
  }

  const FakePeer peer_ = makePeer(2);
  const ConnectionKey key_;
  Ptr<Ike::SecurityAssociation> out_;
};

class ZeroRandomSource final : public RandomSource {
 public:
  bool fill(std::span<uint8_t> out) override {
    std::ranges::fill(out, uint8_t{0});
    return true;
  }
};

TEST_F(NonceExchangeTest, ASourceThatYieldsNothingButZerosHasFailed) {
  RandomSource::currentIs(makePtr<ZeroRandomSource>());
  out_->softExpireIs(true);
  TraceCapture traces;
  sm->saRekey().maybeRekeySa(out_->sakey());
  EXPECT_TRUE(traces.has("Failed to generate nonce"));
  EXPECT_EQ(path(key_)->pathConnSaInfo(out_->sakey())->saRekeyState(), SaRekeyState::nonceFailed);
  EXPECT_FALSE(out_->rekey());
  EXPECT_EQ(path(key_)->saSmState(), SmState::idle);

  RandomSource::currentIs(makePtr<SeededRandomSource>(2));
  sm->saRekey().maybeRekeySa(out_->sakey());
  EXPECT_TRUE(out_->rekey());
  EXPECT_EQ(path(key_)->saSmState(), SmState::initiator);
  EXPECT_NE(path(key_)->saLocalNonce().nonceValue, 0U);
}

TEST_F(NonceExchangeTest, AnSaThatIsBeingRekeyedIsNotRekeyedAgain) {
  out_->rekeyIs(true);
  host->ipsecStatus->testKnob()->pathTestKnob(key_)->saRekeyTriggerIs(true);
  pass(key_);
  {
    TraceCapture traces;
    run(11);
    EXPECT_TRUE(traces.has("SA rekey in progress"));
    EXPECT_FALSE(out_->softExpire());
  }
  out_->softExpireIs(true);
  sm->saRekey().maybeRekeySa(out_->sakey());
  EXPECT_EQ(path(key_)->saSmState(), SmState::idle);
  EXPECT_EQ(path(key_)->saLocalNonce().nonceValue, 0U);
}

TEST_F(NonceExchangeTest, AnSaThatIsNotInstalledDoesNotExpireByTime) {
  vrf()->lifetimeCfg(out_->sakey())->softAddExpireIs(1);
  uint64_t& addTime = host->ipsecCounterTable->saCounterEntryIs(out_->sakey()).addTime;
  for (const uint64_t added : {uint64_t{0}, addTime}) {
    addTime = added;
    pass(key_);
    sm->saRekey().handleSaRekeyTimer();
    EXPECT_EQ(out_->softExpire(), added != 0);
  }
}

TEST_F(NonceExchangeTest, ANonceThatCannotBeUsedChangesNothing) {
  const auto in = path(key_)->pathConnSaInfo(sa(key_, SaType::steadyIn)->sakey());
  const Ptr<RekeySm> rekeySm = sm->paths().rekeySm(key_);
  // Without an out-SA there is nothing to carry the answer.
  out_->saTypeIs(SaType::retiredOut);
  rekeySm->doUpdateNonceForPeer();
  EXPECT_EQ(out_->nonce(), 0U);
  EXPECT_FALSE(out_->rekey());
  // Nor does a nonce mean anything without its peer.
  const auto kept = path(key_);
  const auto keptPeer = state(peer_);
  host->ipsecStatus->ipsecPeerConnectionStateDel(peer_.address);
  TraceCapture traces;
  in->peerNonceIs(nonceWord(NonceType::initiator, 5));
  EXPECT_TRUE(traces.has("peerConnState not found"));
  EXPECT_EQ(kept->saSmState(), SmState::idle);
  EXPECT_EQ(kept->saPeerNonce().nonceValue, 0U);
}

}  // namespace
}  // namespace tessel::Ipsec
