// Where the user's application state lives on freedesktop systems.

#include "kelcore/File.h"

#include "XdgBaseDirectory.h"

namespace kelcore::filesupport {

std::filesystem::path File::UserStateDirectory() { return linux_detail::XdgBaseDirectory("XDG_STATE_HOME", ".local/state"); }

}  // namespace kelcore::filesupport
