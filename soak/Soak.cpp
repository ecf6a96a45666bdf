#include "soak/Soak.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "BrioSharedMem/EntityManager.h"
#include "common/Json.h"
#include "demo/Folder.h"
#include "soak/Check.h"
#include "soak/Events.h"
#include "soak/Faults.h"
#include "soak/Load.h"
#include "soak/Oracle.h"
#include "soak/Programs.h"
#include "soak/Session.h"
#include "soak/Tally.h"

namespace Soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::uint64_t kFolderBytes = std::uint64_t{256} << 20;
// Intents without an answer, and bytes that the socket has not taken.
constexpr std::size_t kMostOpen = 4000;
constexpr std::size_t kMostUnsent = 1 << 16;
// How long no answer may come while all programs run.
constexpr std::chrono::seconds kPatience{60};

// What ended the soak from outside; 0 if nothing did.
std::atomic<int> interruptedBy{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores it");
void interrupt(int number) { interruptedBy = number; }

// A feature in front of an agent that is killed and started again: what it asks for, and what it is
// told.
class Feature {
 public:
  Feature(const Settings& settings, Oracle& oracle, Tally& tally)
      : oracle_(oracle),
        tally_(tally),
        load_(settings.units, settings.seed),
        random_(settings.seed),
        events_(settings.seed) {}

  // Gets in touch with the agent if it can; `started` is when the agent was.
  void connect(const std::string& socket, Clock::time_point started) {
    if (session_ != nullptr) {
      return;
    }
    session_ = Session::connect(socket);
    if (session_ == nullptr) {
      return;
    }
    started_ = started;
    ++tally_.lives;
    before_ = highest_;
    replayComplete_ = false;
    askedForCompletion_.reset();
    // Mostly at once; now and then features go on with their work before all are back.
    completeAfter_ = random_() % 4 == 0 ? random_() % 3000 : 0;
  }

  // Sends what there is room for, at most `most`, and takes what has come.
  void turn(std::uint64_t most, bool draining) {
    if (session_ == nullptr) {
      std::this_thread::sleep_for(milliseconds(1));
      return;
    }
    ++turn_;
    while (const auto event = events_.ready(turn_, draining)) {
      eventLines_.insert(session_->send(*event));
    }
    while (most > 0 && open_.size() < kMostOpen && session_->unsent() < kMostUnsent) {
      maybeComplete(false);
      sendNext();
      --most;
    }
    maybeComplete(draining);
    if (!session_->turn(milliseconds(1), [this](std::string_view line) { take(line); })) {
      lose();
    }
  }

  // The agent is going, or gone: what is unanswered stays so.
  void lose() {
    if (session_ != nullptr) {
      // What it has said before it went counts.
      static_cast<void>(
          session_->turn(milliseconds(0), [this](std::string_view line) { take(line); }));
      session_.reset();
      tally_.unanswered += open_.size();
      open_.clear();
      events_.forget();
      eventLines_.clear();
    }
  }

  // Everything that was sent has an answer, or will never have one, and entries that nobody wants
  // any more are gone.
  [[nodiscard]] bool isQuiet() const {
    return session_ != nullptr && replayComplete_ && open_.empty() && eventLines_.empty() &&
           !events_.prepares() && session_->unsent() == 0;
  }
  [[nodiscard]] const Versions& highest() const noexcept { return highest_; }
  [[nodiscard]] std::uint64_t answers() const noexcept { return answers_; }

 private:
  struct Open {
    std::uint64_t line;
    std::uint64_t number;
  };

  void maybeComplete(bool now) {
    if (!askedForCompletion_ && (now || completeAfter_ == 0)) {
      askedForCompletion_ = session_->send(R"({"op":"replayComplete"})");
    }
    completeAfter_ -= completeAfter_ > 0 ? 1 : 0;
  }

  void sendNext() {
    auto intent = load_.front();
    load_.pop();
    if (intent->after && !oracle_.isKnown(*intent->after, tally_.lives)) {
      // What it should come after went with an agent.
      Common::Intent alone = *intent;
      alone.after.reset();
      intent = std::make_shared<const Common::Intent>(std::move(alone));
    }
    if (const auto event = events_.before(*intent, tally_.sent)) {
      eventLines_.insert(session_->send(*event));
    }
    text_.clear();
    Common::appendIntent(text_, *intent);
    open_.push_back({session_->send(text_), ++tally_.sent});
    oracle_.sent(tally_.sent, std::move(intent), tally_.lives);
  }

  void take(std::string_view text) {
    const Common::Json line = Common::parseLine(text);
    const auto number = line.at("line").get<std::uint64_t>();
    ++answers_;
    if (number == askedForCompletion_) {
      if (line.value("outcome", "") != "success") {
        wrong(text);
      }
      replayComplete_ = true;
      tally_.back.push_back(
          std::chrono::duration<double, std::milli>(Clock::now() - started_).count());
      return;
    }
    if (eventLines_.erase(number) != 0) {
      const bool done = line.value("outcome", "") == "success";
      ++(done ? tally_.events : tally_.eventsInVain);
      if (line.contains("error") || (!done && line.value("event", "") != "change")) {
        wrong(text);
      }
      return;
    }
    const auto found =
        std::lower_bound(open_.begin(), open_.end(), number,
                         [](const Open& open, std::uint64_t value) { return open.line < value; });
    if (found == open_.end() || found->line != number) {
      wrong(text);
      return;
    }
    const std::uint64_t sent = found->number;
    open_.erase(found);
    if (line.contains("error")) {
      // Only this may happen: the entry that it has to come after is not there.
      if (!oracle_.intent(sent).after) {
        wrong(text);
      }
      oracle_.refused(sent);
      ++tally_.refused;
    } else if (line.at("outcome") == "success") {
      const std::size_t table = oracle_.intent(sent).table();
      const bool ofAKey = oracle_.intent(sent).op != Common::IntentOp::removeAll;
      takeVersion(text, line, table, oracle_.succeeded(sent) && ofAKey);
      ++tally_.succeeded;
    } else {
      wrong(text);
      oracle_.refused(sent);
    }
  }

  // A version is given once, over all lives of the agent. What has changed its key has one of this
  // life; another may have found what it asked for there already.
  void takeVersion(std::string_view text, const Common::Json& line, std::size_t table,
                   bool changed) {
    const auto version = line.value("version", std::uint64_t{0});
    if (changed && version <= before_[table]) {
      wrong(fmt::format("version {} was answered in an earlier life: {}", before_[table], text));
    }
    highest_[table] = std::max(highest_[table], version);
  }

  void wrong(std::string_view text) { tally_.wrong.push_back(fmt::format("an answer: {}", text)); }

  Oracle& oracle_;
  Tally& tally_;
  Load load_;
  std::mt19937_64 random_;
  std::unique_ptr<Session> session_;
  Clock::time_point started_;
  std::deque<Open> open_;  // sent in this session and not answered
  Events events_;
  std::set<std::uint64_t> eventLines_;  // not answered
  std::uint64_t turn_ = 0;
  bool replayComplete_ = false;
  std::optional<std::uint64_t> askedForCompletion_;  // in this line
  std::uint64_t completeAfter_ = 0;                  // intents
  Versions highest_{};                               // answered
  Versions before_{};                                // the same when this life began
  std::uint64_t answers_ = 0;
  std::string text_;
};

// How many intents may go out, with a limit to how many a second.
class Pace {
 public:
  explicit Pace(std::uint64_t rate) : rate_(rate) {}

  [[nodiscard]] std::uint64_t allowed(Clock::time_point now, std::uint64_t sent) {
    if (rate_ == 0) {
      return kMostOpen;
    }
    // What was not sent while the agent was away is not made up for.
    const auto slice = milliseconds(20);
    if (now - since_ > slice) {
      since_ = now;
      from_ = sent;
    }
    const std::uint64_t most = std::max<std::uint64_t>(rate_ * slice.count() / 1000, 1);
    return most - std::min(most, sent - from_);
  }

 private:
  std::uint64_t rate_;
  Clock::time_point since_;
  std::uint64_t from_ = 0;
};

class Run {
 public:
  explicit Run(const Settings& settings)
      : settings_(settings),
        folder_(kFolderBytes),
        faults_(settings.seed, secondsOf(settings.faultEvery)),
        feature_(settings, oracle_, tally_),
        pace_(settings.rate) {
    if (settings.keep) {
      folder_.keep();
      fmt::print("all that the programs write is kept in {}\n", folder_.path());
      std::fflush(stdout);
    }
  }

  int run() {
    BrioSharedMem::EntityManager::rootIs(Programs::kStoreName, folder_.path());
    memory_ = BrioSharedMem::EntityManager::getEntityManager(Programs::kStoreName, false);
    start_ = Clock::now();
    try {
      Programs programs(folder_, settings_.units);
      const auto end = start_ + secondsOf(settings_.seconds);
      while (tally_.wrong.empty()) {
        load(programs, std::min(end, Clock::now() + secondsOf(settings_.checkEvery)));
        comeToRest(programs);
        if (tally_.wrong.empty()) {
          check(oracle_, *memory_, programs, feature_.highest(), tally_);
        }
        if (Clock::now() >= end) {
          break;
        }
      }
    } catch (const std::exception& error) {
      tally_.wrong.emplace_back(error.what());
    }
    tellProgress(true);
    fmt::print("{}", tally_.text(faults_));
    if (!tally_.wrong.empty() && !settings_.keep) {
      folder_.keep();
      fmt::print("all that the programs wrote is kept in {}\n", folder_.path());
    }
    return tally_.wrong.empty() ? 0 : 1;
  }

 private:
  [[nodiscard]] static Clock::duration secondsOf(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  }

  // Under load, with faults.
  void load(Programs& programs, Clock::time_point until) {
    faults_.resumeAt(Clock::now());
    while (Clock::now() < until && tally_.wrong.empty()) {
      const auto now = Clock::now();
      faults_.strikeIfDue(now, programs);
      turn(programs, pace_.allowed(now, tally_.sent), false);
    }
  }

  // Everybody is back, and everything is answered.
  void comeToRest(Programs& programs) {
    auto last = Clock::now();
    std::uint64_t answers = feature_.answers();
    while (!feature_.isQuiet() && tally_.wrong.empty()) {
      turn(programs, 0, true);
      if (feature_.answers() != answers) {
        answers = feature_.answers();
        last = Clock::now();
      } else if (Clock::now() - last > kPatience) {
        throw std::runtime_error("nothing has been answered for a minute, with all programs there");
      }
    }
  }

  void turn(Programs& programs, std::uint64_t most, bool draining) {
    programs.tend(draining);
    if (programs.runs(Programs::Which::agent)) {
      feature_.connect(programs.socket(), programs.agentStarted());
    }
    feature_.turn(most, draining);
    if (interruptedBy != 0) {
      throw std::runtime_error("interrupted");
    }
    tellProgress(false);
  }

  void tellProgress(bool last) {
    const auto now = Clock::now();
    tally_.seconds = std::chrono::duration<double>(now - start_).count();
    const bool onScreen = ::isatty(STDERR_FILENO) == 1;
    if (settings_.quiet || (!last && now < nextProgress_)) {
      return;
    }
    nextProgress_ = now + (onScreen ? milliseconds(100) : milliseconds(10'000));
    fmt::print(stderr, "{}{}{}", onScreen ? "\r" : "", tally_.progress(faults_),
               onScreen && !last ? "" : "\n");
    std::fflush(stderr);
  }

  const Settings& settings_;
  Demo::Folder folder_;
  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  Oracle oracle_;
  Tally tally_;
  Faults faults_;
  Feature feature_;
  Pace pace_;
  Clock::time_point start_;
  Clock::time_point nextProgress_;
};

}  // namespace

int runSoak(const Settings& settings) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    std::signal(number, interrupt);
  }
  return Run(settings).run();
}

}  // namespace Soak
