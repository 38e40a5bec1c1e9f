// The threads of a soak. Each runs until the end, or throws Difference.
#pragma once

#include <cstdint>

#include "disk_rig.h"
#include "soak.h"

namespace zor::soak {

struct Worker {
  DiskRig& rig;
  const Ending& ending;
  Journal& journal;
  Dice dice;
};

/// All commands over one link that lasts, many in flight, against a model in
/// memory.
void workWithLibrary(Worker& worker);

/// System calls on a directory of the drive's and on an ordinary one, with the
/// same outcome. `name` is the worker's own.
void workOnDrive(Worker& worker, const std::string& name);

/// Whole programs on the drive.
void runPrograms(Worker& worker);

/// Faults of connections and processes.
void disturbLinks(Worker& worker);

/// A full disk, a read-only one.
void disturbDisk(Worker& worker);

}  // namespace zor::soak
