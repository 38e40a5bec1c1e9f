#include <csignal>

#include "workers.h"

namespace zor::soak {
namespace {

using std::chrono::milliseconds;

/// Lets a fault last, and tells of it.
class Fault {
 public:
  explicit Fault(Worker& worker) : mWorker(worker), mTime(length(worker.dice)) {}
  void during(const std::string& what) {
    mWorker.journal.add(what + " for " + std::to_string(mTime.count()) + " ms");
    pauseFor(mWorker.ending, mTime);
  }

 private:
  // Most are short, so that many meet; some are long enough for every timer
  // but the time limit of the link.
  static milliseconds length(Dice& dice) {
    return milliseconds(dice.roll(6) == 0 ? 1000 + dice.roll(5000) : dice.roll(300));
  }

  Worker& mWorker;
  const milliseconds mTime;
};

void disturb(Worker& worker, ServedPart& part, const std::string& name) {
  Fault fault(worker);
  switch (worker.dice.roll(7)) {
    case 0:
      worker.journal.add("cut " + name);
      part.relay().cut();
      break;
    case 1:
      part.hideSocket();
      part.relay().cut();
      fault.during("no connection to " + name);
      part.showSocket();
      break;
    case 2:
    case 3: {
      const int signal = worker.dice.roll(2) == 0 ? SIGKILL : SIGTERM;
      part.stop(signal);
      fault.during("signal " + std::to_string(signal) + " and no host of " + name);
      part.start();
      break;
    }
    case 4:
      part.signal(SIGSTOP);
      fault.during("a stopped host of " + name);
      part.signal(SIGCONT);
      break;
    case 5:
      worker.rig.signalMount(SIGSTOP);
      fault.during("a stopped mount");
      worker.rig.signalMount(SIGCONT);
      break;
    default:
      part.relay().setDelay(milliseconds(1 + worker.dice.roll(30)));
      fault.during("a slow link to " + name);
      part.relay().setDelay(milliseconds(0));
  }
}

}  // namespace

void disturbLinks(Worker& worker) {
  while (pauseFor(worker.ending, milliseconds(worker.dice.roll(1500)))) {
    const bool library = worker.dice.roll(2) == 0;
    disturb(worker, library ? worker.rig.libraryPart : worker.rig.drivePart,
            library ? "the library" : "the drive");
  }
}

void disturbDisk(Worker& worker) {
  while (worker.rig.hasFaults() &&
         pauseFor(worker.ending, milliseconds(3000 + worker.dice.roll(12000)))) {
    Fault fault(worker);
    const std::unique_lock alone(worker.rig.state.programs);
    worker.rig.state.change();
    if (worker.dice.roll(2) == 0 ? worker.rig.fill() : worker.rig.remount(true)) {
      fault.during("a disk that takes nothing");
    }
    worker.rig.relieve();
    worker.rig.state.change();
  }
}

}  // namespace zor::soak
