// The file system as a running process sees it.
//
// The packaged service sees most of the machine read-only, some of it not at all, and a private
// /tmp. While a MountView exists, this process sees the same.
#pragma once

#include <optional>

#include "tools/check/process.h"

class MountView {
public:
    // Does nothing without a process, or without the permission to enter its view.
    explicit MountView(const std::optional<Process>& process);
    ~MountView();
    MountView(const MountView&) = delete;
    MountView& operator=(const MountView&) = delete;

    bool entered() const { return _entered; }

private:
    int _root = -1;       // this process's own
    int _directory = -1;  // and its working directory
    bool _entered = false;
};
