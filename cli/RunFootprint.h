#pragma once
// What this run has put on disk: its temporary folders and files, and the
// output folder, whose whole contents come from this run. Each item is
// recorded before it is made, and the record is read and removed without
// allocating or locking, so the signal thread can clear a run while the other
// threads are stopped anywhere, even inside malloc.

#include <atomic>
#include <climits>
#include <string>

namespace plexa::cli {

class RunFootprint {
 public:
  static constexpr int kSlots = 16;

  // Process-wide: the signal thread and the run share it.
  static RunFootprint& shared();

  // A new folder "<TMPDIR>/<prefix>-XXXXXX", recorded before it exists; ""
  // with the reason in `error` when it cannot be made.
  std::string makeTemporaryFolder(const std::string& prefix, std::string* error = nullptr);
  // Records a file or folder the run is about to create; false when the
  // record is full or the path too long (the caller then must not create it).
  bool record(const std::string& path);
  // Removes a recorded item now and forgets it.
  void remove(const std::string& path);
  // Forgets an item that stays (a result the user keeps).
  void forget(const std::string& path);

  // Everything inside `folder` is this run's; the folder itself too when it
  // did not exist before the run.
  bool recordOutputFolder(const std::string& folder, bool existedBefore);
  // The run delivered its results: they stay.
  void keepOutputFolder();

  // Removes everything recorded and forgets it. Any thread; allocates nothing.
  void removeAll() noexcept;

  // Empties a folder (keeping it) or removes a file or tree, with system
  // calls only and no allocation; true when nothing is left.
  static bool emptyFolder(const char* path) noexcept;
  static bool removeTree(const char* path) noexcept;

 private:
  enum Kind : int { kItem = 0, kOutputContents = 1, kOutputFolder = 2 };
  enum State : int { kFree = 0, kFilling = 1, kReady = 2 };
  struct Slot {
    std::atomic<int> state{kFree};
    int kind = kItem;
    char path[PATH_MAX] = {};
  };

  int claim(const std::string& path, int kind);
  void release(int kind, const std::string* path);

  Slot slots_[kSlots];
};

}  // namespace plexa::cli
