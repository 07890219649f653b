#pragma once

#include <string>
#include <vector>

#include "support/volumes.h"

namespace vantor::ctl {

// The volume to ask vantord about for `path`: the local volume whose file
// system holds it, found from this process's mount table. A path that cannot
// be resolved (it does not exist, or a directory on the way cannot be
// searched) is answered unchanged, so vantord judges it and refuses what is
// not a volume, rather than this tool guessing.
std::string volumeForPath(const std::string& path);

// The volume holding `canonicalPath` among `mounts` (the lines of a mount
// table, in mount order): the innermost mount point above it, or, when that
// mount is another mount of a local volume's device (a bind mount), that
// volume. A mount of no local volume is answered as it is.
std::string volumeHolding(const std::string& canonicalPath, const std::vector<MountEntry>& mounts);

}  // namespace vantor::ctl
