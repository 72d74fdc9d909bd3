// Every state that the two ends of a path go through in an SA rekey, and in one that is disturbed.
#include <string>
#include <utility>
#include <vector>

#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"

namespace tessel::lab {
namespace {

/// Writes down what happens to a router's only path: "17", its state; "s2", its saSmState; "-", it
/// is gone. A new one begins with saSmState 0.
class Journal final : public LabObserver {
 public:
  explicit Journal(std::string router) : router_(std::move(router)) {}
  void add(const std::string& word) { text_ += (text_.empty() ? "" : " ") + word; }
  /// What was written since the last call.
  std::string take() { return std::exchange(text_, {}); }

  void handleRouterUp(Router& router) override {
    if (router.name() == router_) {
      status_ = router.entities().ipsecStatus.get();
      statusTie_.attach<&Journal::handle>(*status_, *this);
    }
  }
  void handleRouterDown(Router& router) override {
    if (router.name() == router_) {
      pathTie_.end();
      add("-");
    }
  }

 private:
  void handle(const Change& change) {
    const bool added = change.kind() == Change::Kind::added;
    if (const auto* peer = change.memberOf(Ike::Status::ipsecPeerConnectionStateName);
        peer != nullptr && added) {
      peer_ = status_->ipsecPeerConnectionState(*peer).get();
      peerTie_.attach<&Journal::handle>(*peer_, *this);
    } else if (const auto* path = change.memberOf(Ike::PeerConnectionState::pathConnStateName)) {
      if (added) {
        path_ = peer_->pathConnState(*path).get();
        pathTie_.attach<&Journal::handle>(*path_, *this);
      } else {
        add("-");
      }
    } else if (change.is(Ike::PathConnState::pathStateName)) {
      add(std::to_string(static_cast<int>(path_->pathState())));
    } else if (change.is(Ike::PathConnState::saSmStateName)) {
      add("s" + std::to_string(static_cast<int>(path_->saSmState())));
    }
  }

  const std::string router_;
  const Ike::Status* status_ = nullptr;
  const Ike::PeerConnectionState* peer_ = nullptr;
  const Ike::PathConnState* path_ = nullptr;
  Subscription statusTie_;
  Subscription peerTie_;
  Subscription pathTie_;
  std::string text_;
};

/// Active, in no rekey, with one steady in-SA that is the other end's steady out-SA.
bool isAtRest(const PathView& end, const PathView& other, size_t unused) {
  return end.state() == DynamicPathState::active && end.saSmState() == SmState::idle &&
         end.inSpi() != 0 && end.inSpi() == other.outSpi() && end.sas().size() == 2 + unused &&
         end.sas(SaType::saRekeyIn).size() == unused;
}

/// Does something that many seconds after the rekey is asked for.
struct Step {
  double at;
  Action action;
};

struct Also {
  bool tie = false;   ///< What is expected at "a" is expected at the end that wins the tie.
  size_t unused = 0;  ///< In-SAs at "a", of an answer that came when it no longer waited for one.
};

const std::string kInitiator = "s2 17 19 20 21 s0 22 2 3";
const std::string kResponder = "s3 23 25 26 27 s0 28 2 3";

/// Has "a" start a rekey: it sends its nonce after 4.5 s, "b" hears it after 9.5 s, answers after
/// 14.5 s. Expects what the two write down, with a "|" for every later step, and that they come to
/// rest. Both ways round, since one of the two is the initiator of the DH keys.
void rekey(const char* name, const std::vector<Step>& steps, const std::string& atA,
           const std::string& atB, const Also& also = {}) {
  for (const bool aInitiates : {true, false}) {
    SCOPED_TRACE(std::string(name) + (aInitiates ? ", a" : ", b") + " is the DH initiator");
    Journal atEnds[] = {Journal("a"), Journal("b")};
    MeshSpec spec{.routers = {"a", "b"}, .trafficInterval = seconds(0.25)};
    spec.seed = aInitiates ? 2 : 1;
    Lab lab(meshScenario(spec), {&atEnds[0], &atEnds[1]});
    Router& a = lab.router("a");
    Router& b = lab.router("b");
    lab.run(seconds(130.5));
    ASSERT_EQ(a.peer(b)->initiator(), aInitiates);
    ASSERT_EQ(atEnds[0].take() + ", " + atEnds[1].take(), "1 3, 1 3");
    lab.apply(ForceSaRekey{.router = "a"});
    for (const Step& step : steps) {
      if (seconds(130.5 + step.at) > lab.now()) {
        lab.runUntil(seconds(130.5 + step.at));
        atEnds[0].add("|");
        atEnds[1].add("|");
      }
      lab.apply(step.action);
    }
    lab.run(seconds(600));
    const int first = also.tie && !aInitiates ? 1 : 0;
    EXPECT_EQ(atEnds[first].take(), atA);
    EXPECT_EQ(atEnds[1 - first].take(), atB);
    const PathView endA = a.pathTo(b);
    const PathView endB = b.pathTo(a);
    EXPECT_TRUE(isAtRest(endA, endB, also.unused)) << endA.sas().size() << " SAs at a";
    EXPECT_TRUE(isAtRest(endB, endA, 0)) << endB.sas().size() << " SAs at b";
  }
}

TEST(SaRekeySequence, OfOneEndOrBoth) {
  rekey("undisturbed", {}, kInitiator, kResponder);
  rekey("one after the other", {{14.7, ForceSaRekey{.router = "b"}}},
        "s2 17 | 19 20 21 s0 22 2 3 " + kResponder, "s3 23 25 | 26 27 s0 28 2 3 " + kInitiator);
  rekey("both at once", {{0, ForceSaRekey{}}}, "s2 17 s4 29 s2 18 19 20 21 s0 22 2 3",
        "s2 17 s4 29 s3 23 25 26 27 s0 28 2 3", {.tie = true});
}

TEST(SaRekeySequence, WhenPacketsDoNotCome) {
  const CutLink cutB{.from = "b"};
  const SetProbes noProbes{.on = false};
  rekey("answer lost", {{7.5, cutB}, {60, RestoreLink{}}}, "s2 17 | | 19 20 21 s0 22 2 3",
        "| s3 23 25 | 26 27 s0 28 2 3");
  rekey("answer lost for too long", {{7.5, cutB}, {300, RestoreLink{}}}, "s2 17 | 31 - 1 | 3",
        "| s3 23 25 31 - 1 3 |");
  rekey("peer silent", {{4, CutLink{}}, {300, RestoreLink{}}}, "| s2 17 31 - 1 | 3", "| 2 | 3");
  rekey("quiet responder", {{0, noProbes}, {7.5, StopTraffic{.from = "b"}}, {60, StartTraffic{}}},
        "s2 17 | | 19 20 21 s0 22 2 3", "| s3 23 25 | 26 27 s0 28 2 3");
  rekey("quiet initiator", {{0, noProbes}, {14.7, StopTraffic{.from = "a"}}, {60, StartTraffic{}}},
        "s2 17 | 19 20 21 s0 | 22 2 3", "s3 23 25 | | 26 27 s0 28 2 3");
}

TEST(SaRekeySequence, WhenKeysCannotBeMade) {
  const FailGeneration noNonceAtA{.router = "a"};
  // The first attempt sends nothing; the step after it changes nothing, the next attempt follows.
  rekey("initiator's first nonce", {{0, noNonceAtA}, {7, RestoreLink{}}}, "| " + kInitiator,
        "| " + kResponder);
  rekey("initiator's second nonce", {{300, ForceSaRekey{.router = "a"}}, {300, noNonceAtA}},
        kInitiator + " | s2 17 31 - 1 3", kResponder + " | s3 23 31 - 1 3");
  rekey("responder's first nonce", {{0, FailGeneration{.router = "b"}}}, kInitiator,
        "s3 23 31 - 1 " + kResponder);
  rekey("responder's keys", {{0, CorruptRecord{.router = "a", .at = "b"}}, {30, RestoreRecord{}}},
        "s2 17 | 19 20 21 s0 22 2 3", "s3 23 31 | - 1 " + kResponder);
  rekey("initiator's keys", {{0, CorruptRecord{.router = "b", .at = "a"}}, {30, RestoreRecord{}}},
        "s2 17 19 31 | - 1 3", "s3 23 25 | 31 - 1 3", {.unused = 1});
}

TEST(SaRekeySequence, WhenThePathOrARouterGoes) {
  rekey("initiator cleared", {{14.7, ClearPath{.router = "a"}}}, "s2 17 | 31 - 1 3",
        "s3 23 25 | 31 - 1 3", {.unused = 1});
  // The rebuilt responder still hears the initiator's nonce, and has a new one of its own: too late
  // when the answer with the old one is on its way.
  rekey("responder cleared", {{14.7, ClearPath{.router = "b"}}}, "s2 17 | 19 20 21 s0 22 2 3",
        "s3 23 25 | 31 - 1 " + kResponder);
  rekey("answered and cleared", {{15.2, ClearPath{.router = "b"}}}, "s2 17 | 19 20 21 s0 31 - 1 3",
        "s3 23 25 | 31 - 1 s3 23 25 31 - 1 3");
  rekey("both cleared", {{14.7, ClearPath{}}}, "s2 17 | 31 - 1 3", "s3 23 25 | 31 - 1 3");
  rekey("path removed", {{14.7, RemovePath{}}, {20, AddPath{}}}, "s2 17 | - | 1 3",
        "s3 23 25 | - | 1 3");
  rekey("initiator restarts", {{14.7, RestartRouter{.router = "a", .downFor = seconds(2)}}},
        "s2 17 | - 1 3", "s3 23 25 | - 1 3");
  rekey("responder restarts", {{14.7, RestartRouter{.router = "b", .downFor = seconds(2)}}},
        "s2 17 | - 1 3", "s3 23 25 | - 1 3");
}

}  // namespace
}  // namespace tessel::lab
