// The processes of a soak, and the disk below them.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "soak.h"
#include "support/delay_relay.h"

namespace zor::soak {

namespace fs = std::filesystem;

/// A directory, the host that serves it, and the relay that remotes go through.
class ServedPart {
 public:
  ServedPart(std::string program, fs::path directory, const fs::path& beside);
  ~ServedPart();
  ServedPart(const ServedPart&) = delete;
  ServedPart& operator=(const ServedPart&) = delete;

  /// For remotes.
  std::string socket() const { return mBeside + ".relay"; }
  const fs::path& directory() const { return mDirectory; }
  test::DelayRelay& relay() { return mRelay; }
  /// In between, remotes find no host.
  void hideSocket() const { fs::rename(socket(), socket() + ".away"); }
  void showSocket() const { fs::rename(socket() + ".away", socket()); }

  // One thread. A host that is asked to end must do so without complaint.
  void start();
  void stop(int signal);
  void signal(int number) const;

  /// What a fresh host, and one that was left by every remote, holds.
  std::string figures() const;

 private:
  int ask(const char* command);
  std::string hostSocket() const { return mBeside + ".sock"; }

  const std::string mProgram;
  const fs::path mDirectory;
  const std::string mBeside;  ///< begins the names of what is not on the disk
  // A host that was started from here would close copies of the files that are
  // open on its own drive, and wait for itself. A shell starts it instead.
  std::ofstream mCommands;
  std::ifstream mAnswers;
  pid_t mShell = -1;
  test::DelayRelay mRelay;
  pid_t mHost = -1;
};

/// A file system of its own where that is possible, with a part for the client
/// library and a part for the drive.
class DiskRig {
 public:
  explicit DiskRig(const fs::path& programs);
  ~DiskRig();
  DiskRig(const DiskRig&) = delete;
  DiskRig& operator=(const DiskRig&) = delete;

  fs::path beside(const std::string& name) const { return mBase / name; }
  fs::path drive() const { return mBase / "drive"; }
  /// Whether the disk can be filled and made read-only.
  bool hasFaults() const { return mOwnDisk; }
  bool fill() const;
  bool remount(bool readOnly) const;
  void relieve() const;

  void signalMount(int number) const;
  std::string mountWords() const;
  /// Ends the processes at once and leaves the rest as it is.
  void abandon() const;
  /// Ends it; its exit code.
  int unmount();
  std::string mountFigures() const;

 private:
  fs::path makeBase() const;
  fs::path makePart(const std::string& name);
  void mountDrive(const std::string& program);
  fs::path disk() const { return mBase / "disk"; }

  const fs::path mBase;
  const bool mOwnDisk;
  pid_t mMount = -1;

 public:
  ServedPart libraryPart;
  ServedPart drivePart;
  DiskState state;
};

}  // namespace zor::soak
