#include "agent/Agent.h"

#include <fmt/format.h>
#include <unistd.h>

#include <asio/post.hpp>
#include <csignal>
#include <numeric>

#include "agent/Say.h"
#include "agent/Summary.h"
#include "agent/Waiting.h"

namespace Agent {
namespace {

constexpr std::chrono::milliseconds kTick{100};
constexpr std::chrono::seconds kAskAgainEvery{1};
constexpr std::chrono::milliseconds kToldEvery{250};  // in a file; a screen is told at every tick
constexpr std::chrono::milliseconds kBusyFor{20};     // after the last move
constexpr std::size_t kPendingShown = 10;
constexpr unsigned kWritesAgainAtATurn = 256;
constexpr unsigned kRetriesLookedAt = 256;  // a second, though nothing has told of them

std::unique_ptr<BriskTrace::TraceHandle> openBrisk(const std::string& path) {
  if (path.empty()) {
    return nullptr;
  }
  auto handle = std::make_unique<BriskTrace::TraceHandle>(path);
  BriskTrace::defaultBriskTraceHandle = handle.get();
  return handle;
}

}  // namespace

Agent::Agent(const Options& options)
    : options_(options),
      signals_(loop_, SIGTERM, SIGINT, SIGUSR1),
      brisk_(openBrisk(options.brisk)),
      store_(options.name, options.root),
      outcomes_(loop_, options.outcomes),
      bell_(loop_),
      tick_(loop_),
      lastMove_(Clock::now()),
      lastTold_(lastMove_) {
  // A peer or a reader of ours that goes away is an error of the write.
  std::signal(SIGPIPE, SIG_IGN);
  intake_.emplace(store_, store_.makeTables(options.units), options.units, options.inFlight);
  restart_.emplace(store_, *intake_);
  // From here on the store is known to be ours.
  kept_.emplace(store_.folder() + "/intents.sqlite", options.forget, !options.intents.empty());
  intake_->keptIs(&*kept_);
  intake_->retries().wakeUpIs([this] { asio::post(loop_, [this] { writeAgain(); }); });
  intake_->completeReplayIs([this](const std::shared_ptr<Source>& source, std::uint64_t line) {
    orderCompleteReplay(source, line);
  });
  // Whatever can't be opened is said before the first intent is taken.
  files_.emplace(loop_, options.intents, *intake_, outcomes_,
                 FileReader::Events{[this](Replay& replay) { foldKept(replay); },
                                    [this] { replayed(); }, [this] { filesEnded(); }});
  if (!options.socket.empty()) {
    socket_.emplace(loop_, options.socket, *intake_, *kept_);
  }
  history_.emplace(*intake_);
  if (!options.inspect.empty()) {
    inspection_.emplace(
        loop_, options.inspect, options.inspectMode,
        InspectionContext{store_, *intake_, options_, *history_, [this] { return figures(); }},
        [this] { return isBusy(); });
  }
  outcomes_.open([this] { files_->resume(); });
  store_.resources().forEach([&](auto& table) { table.deadlineIs(options.resourceDeadline); });
  store_.group().groupResolver()->wakeUpIs([this] { asio::post(loop_, [this] { runPass(); }); });
  bell_.assign(store_.ownBell().fd());
}

Agent::~Agent() {
  bell_.release();
  inspection_.reset();  // it may hold any object
  history_.reset();
  socket_.reset();
  files_.reset();
  restart_.reset();
  intake_.reset();
  BriskTrace::defaultBriskTraceHandle = nullptr;
}

int Agent::run() {
  waitForSignal();
  waitForTick();
  handleBell();
  if (inspection_) {
    inspection_->start();
  }
  // Over what an earlier run has left, states that are long past must not come up again. On tables
  // that nobody has written to there are none.
  const bool withReplay = !restart_->nothingThere() || !kept_->lines().empty();
  files_->start(withReplay);
  if (!withReplay) {
    replayed();
  }
  loop_.run();
  outcomes_.flush();
  intake_->keepInLog();
  if (!kept_->flush()) {
    failedOtherwise_ = true;
  }
  tellProgress(true);
  restart_->tell(true);
  if (stopped_ && intake_->inFlight() != 0) {
    say("stopped: {} intents have no outcome yet; those that are in a log stay there",
        intake_->inFlight());
  }
  if (intake_->retries().size() != 0) {
    say("{} writes that failed still wait for their resources and are given up: ask for them again",
        intake_->retries().size());
  }
  if (!options_.summary.empty()) {
    tellSummary();
  }
  waitForReader();
  return exitStatus();
}

// What is done ends only when its outcomes have been taken; what was stopped does not wait.
void Agent::waitForReader() {
  while (outcomes_.waiting() != 0 && !stopped_ && !gaveUp_) {
    loop_.restart();
    loop_.run_one();
    outcomes_.flush();
  }
  if (outcomes_.waiting() != 0) {
    say("{} bytes of outcomes are lost: nobody has taken them", outcomes_.waiting());
  }
}

int Agent::exitStatus() const {
  if (failedOtherwise_ || outcomes_.broken()) {
    return kNotStarted;
  }
  if (stopped_ && (intake_->inFlight() != 0 || outcomes_.waiting() != 0)) {
    return kStopped;
  }
  if (gaveUp_) {
    return kGaveUpWaiting;
  }
  if (intake_->totals().failed != 0 || intake_->events().totals().failed != 0) {
    return kIntentsFailed;
  }
  return files_->skipped() == 0 ? kDone : kLinesSkipped;
}

void Agent::waitForSignal() {
  signals_.async_wait([this](const asio::error_code& error, int signal) {
    if (error) {
      return;
    }
    if (signal == SIGUSR1) {
      tellSummary();
      waitForSignal();
    } else {
      stopped_ = true;
      loop_.stop();
    }
  });
}

void Agent::waitForBell() {
  bell_.async_wait(asio::posix::stream_descriptor::wait_read,
                   [this](const asio::error_code& error) {
                     if (!error) {
                       handleBell();
                     }
                   });
}

// Awake: take the wake-ups that have come, and look for work; then look once more after the bell is
// armed again, or a ring in between would be lost.
void Agent::handleBell() {
  store_.ownBell().disarm();
  lookAtStatus();
  store_.ownBell().arm();
  lookAtStatus();
  waitForBell();
}

void Agent::waitForTick() {
  tick_.expires_after(kTick);
  tick_.async_wait([this](const asio::error_code& error) {
    if (!error) {
      handleTick();
      waitForTick();
    }
  });
}

void Agent::handleTick() {
  const auto now = Clock::now();
  askAgain(now);
  // A hardware side that was killed between its report and its ring has left us asleep; and
  // resources have deadlines.
  lookAtStatus();
  if (socket_) {
    socket_->checkPeers(options_.peerTimeout);
  }
  history_->look(now);
  if (inspection_) {
    inspection_->checkPeers(options_.peerTimeout);
  }
  outcomes_.flush();
  (void)kept_->flush();
  settleOrders();
  tellProgress(false);
  giveUpIfStuck(now);
}

// What waits for room in a file system waits for something that nobody tells of.
void Agent::askAgain(Clock::time_point now) {
  if (now - lastAsked_ < kAskAgainEvery) {
    return;
  }
  lastAsked_ = now;
  intake_->retries().lookAround(kRetriesLookedAt);
  Asic::GroupResolver& resolver = *store_.group().groupResolver();
  if (resolver.size() == 0) {
    return;
  }
  intake_->tellLackOfRoom();
  resolver.updateGenId();
  resolver.maybeUpdateSuspend();
}

void Agent::runPass() {
  ++passes_;
  store_.group().groupResolver()->runPass();
  afterNews();
}

void Agent::lookAtStatus() {
  const bool news = store_.group().pollStatus() != 0;
  if (store_.resources().work() || news) {
    afterNews();
  }
}

// A pass was run, or the hardware side has reported.
void Agent::afterNews() {
  ++steps_;
  store_.ringIfPublished();
  intake_->removeAllsSettle();
  outcomes_.flush();
  restart_->tell(false);
  // Not at every place that falls free: a batch at a time.
  if (intake_->inFlight() <= intake_->limit() / 4 * 3) {
    files_->resume();
    if (socket_) {
      socket_->resume();
    }
    intake_->retries().maybeWake();
  }
  endIfDone();
}

void Agent::writeAgain() {
  intake_->writeAgain(kWritesAgainAtATurn);
  endIfDone();
}

namespace {

// Nobody is there any more to hear how a kept intent ends; if it fails, people should know.
class KeptSource final : public Source {
 public:
  KeptSource() : Source("kept") {}
  void outcomeIs(std::string_view line) override {
    if (line.find(R"("outcome":"failed")") != std::string_view::npos) {
      if (failed_++ < kMostTold) {
        say("an intent that was kept from the socket failed: {}", line.substr(0, line.size() - 1));
      }
    }
  }

 private:
  static constexpr unsigned kMostTold = 10;
  unsigned failed_ = 0;
};

}  // namespace

// The kept ones go last: they came while the files of their time had been read.
void Agent::foldKept(Replay& replay) {
  const auto source = std::make_shared<KeptSource>();
  std::uint64_t number = 0;
  std::uint64_t left = 0;
  std::string why;
  for (const std::string& line : kept_->lines()) {
    ++number;
    try {
      replay.addKept(Common::parseIntent(line), line, source, number);
    } catch (const Common::InputError& error) {
      ++left;
      why = error.what();
    }
  }
  if (left != 0) {
    say("{}: {} of {} kept intents are left out, such as for this: {}", kept_->file(), left, number,
        why);
  }
}

// Peers come in only now: what they say is newer than what was kept.
void Agent::replayed() {
  replayed_ = true;
  if (socket_) {
    socket_->start();
  }
}

void Agent::filesEnded() {
  settleOrders();
  if (options_.exitWhenDone && !options_.intents.empty() && !options_.noSweep) {
    (void)completeReplay();
  }
  filesEnded_ = true;
  endIfDone();
}

void Agent::settleOrders() {
  if (ordersWaiting_.empty() || files_->regularLeft()) {
    return;
  }
  for (const auto& [source, line] : std::exchange(ordersWaiting_, {})) {
    orderCompleteReplay(source, line);
    source->inFlightDec();
  }
}

void Agent::orderCompleteReplay(const std::shared_ptr<Source>& source, std::uint64_t line) {
  if (source->isKept() && files_->regularLeft()) {
    source->inFlightInc();
    ordersWaiting_.push_back({source, line});
    return;
  }
  Intake::tellOrder(*source, line, "replayComplete", completeReplay());
}

// False: it is not, as has been said.
bool Agent::completeReplay() {
  if (restart_->isComplete()) {
    return true;
  }
  if (options_.noSweep) {
    say("the replay is not complete: the agent runs with --no-sweep");
    return false;
  }
  // Nobody knows what the wrong lines ask for; it may be what is there.
  if (files_->skipped() != 0) {
    if (!restart_->nothingThere()) {
      say("nothing is swept: {} lines of intents were wrong, and what they ask for might be swept; "
          "correct them and start again",
          files_->skipped());
    }
    return false;
  }
  restart_->complete();
  store_.ringIfPublished();
  restart_->tell(false);
  return true;
}

// Not by hasPendingHwWrites(): a table whose operation failed on its dependency answers that with
// true until the key is used again, and nothing of it is on its way to the hardware. What waits for
// a resource is not waited for, unless it has just got it.
void Agent::endIfDone() {
  if (options_.exitWhenDone && filesEnded_ && intake_->inFlight() == 0 &&
      !intake_->retries().hasWork() && intake_->logsTakenIn()) {
    loop_.stop();
  }
}

void Agent::giveUpIfStuck(Clock::time_point now) {
  if (!options_.timeout) {
    return;
  }
  const Intake::Totals& totals = intake_->totals();
  const std::uint64_t moves = std::accumulate(
      intake_->tables().begin(), intake_->tables().end(),
      totals.accepted + totals.succeeded + totals.failed + outcomes_.written(),
      [](std::uint64_t sum, const auto& table) { return sum + table->lastCleanedVersion(); });
  const bool pending =
      intake_->inFlight() != 0 || !intake_->logsTakenIn() || outcomes_.waiting() != 0;
  if (moves != moves_ || !pending) {
    moves_ = moves;
    lastMove_ = now;
  } else if (now - lastMove_ > *options_.timeout) {
    giveUp();
  }
}

LoopFigures Agent::figures() const {
  LoopFigures figures;
  figures.started = started_;
  figures.passes = passes_;
  figures.linesSkipped = files_->skipped();
  figures.peers = socket_ ? socket_->peers() : 0;
  figures.inspectionPeers = inspection_ ? inspection_->peers() : 0;
  return figures;
}

// Whether there is work that inspection must not hold up: intents that only wait are none.
bool Agent::isBusy() {
  const auto now = Clock::now();
  const Intake::Totals& totals = intake_->totals();
  const std::uint64_t moves = totals.accepted + totals.succeeded + totals.failed + steps_;
  if (moves != busyMoves_ || !replayed_ || store_.group().groupResolver()->passWorthRunning()) {
    busyMoves_ = moves;
    lastBusy_ = now;
  }
  return now - lastBusy_ < kBusyFor;
}

void Agent::giveUp() {
  gaveUp_ = true;
  if (intake_->inFlight() == 0 && intake_->logsTakenIn()) {
    say("gave up: nobody has taken an outcome for {} s",
        std::chrono::duration<double>(*options_.timeout).count());
    loop_.stop();
    return;
  }
  say("gave up: nothing has moved for {} s; is the hardware side running on --name {} --root {}?",
      std::chrono::duration<double>(*options_.timeout).count(), options_.name, options_.root);
  const auto pending = Waiting(*intake_).oldest(kPendingShown);
  for (const Waiting::Pending& one : pending) {
    say("pending: {}: {}", one.intent, one.reason);
  }
  if (intake_->inFlight() > pending.size()) {
    say("pending: and {} intents more", intake_->inFlight() - pending.size());
  }
  for (const auto& table : intake_->tables()) {
    if (table->unit().value == 0 && table->lastCleanedVersion() < table->tableVersion()) {
      say("pending: table {}: its log is at version {}, the hardware side has reported {}",
          table->name(), table->tableVersion(), table->lastCleanedVersion());
    }
  }
  loop_.stop();
}

void Agent::tellProgress(bool last) {
  if (!options_.progress) {
    return;
  }
  static const bool onScreen = isatty(STDERR_FILENO) == 1;
  const Intake::Totals& totals = intake_->totals();
  std::string text = fmt::format("{} accepted, {} skipped, {} in flight, {} ended, {} failed",
                                 totals.accepted, files_->skipped(), intake_->inFlight(),
                                 totals.succeeded + totals.failed, totals.failed);
  const auto now = Clock::now();
  const bool often = !onScreen && now - lastTold_ < kToldEvery;
  if (!last && (text == told_ || often)) {
    return;
  }
  told_ = text;
  lastTold_ = now;
  if (onScreen) {
    text = fmt::format("\r\x1b[Kkelp-agent: {}{}", text, last ? "\n" : "");
    (void)!write(STDERR_FILENO, text.data(), text.size());
  } else {
    say("{}", text);
  }
}

void Agent::tellSummary() {
  const std::string text = summaryText(options_, *intake_, *restart_, files_->skipped());
  if (options_.summary.empty()) {
    sayText(text);
  } else if (options_.summary == "-" && options_.outcomes == "-") {
    outcomes_.add(text);  // behind the outcomes that wait for the same reader
    outcomes_.flush();
  } else if (!writeSummary(options_.summary, text)) {
    failedOtherwise_ = true;
  }
}

}  // namespace Agent
