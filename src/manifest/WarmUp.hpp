#pragma once

#include <thread>

namespace tsappinstall::detail {

// Starts Xerces-C and compiles the manifest schema on a thread of its own:
// the first serializer of a process pays for both (about 18 million
// instructions), and a caller that reads a manifest only after work that
// leaves a core idle, such as a download, need not wait for them then.
// The destructor waits for the thread. Where no thread can be had this
// does nothing, and the first serializer pays as it always does; a
// failure here is the same failure that serializer then reports.
class ManifestWarmUp {
  public:
    ManifestWarmUp();
    ~ManifestWarmUp();
    ManifestWarmUp(const ManifestWarmUp&) = delete;
    ManifestWarmUp& operator=(const ManifestWarmUp&) = delete;

  private:
    std::thread thread_;
};

}  // namespace tsappinstall::detail
