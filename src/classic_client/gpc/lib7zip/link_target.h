// The rule a symbolic link's target must meet to be unpacked, shared by lib7zip.so, which enforces
// it, and gpc-pack, which packs nothing the unpacker would refuse.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace gpc7z {

// What lies at a path: no link, a link whose own target is judged by this rule too, or a link
// whose target nobody checked (already on disk).
enum class LinkAt { kNone, kChecked, kUnchecked };

// True when `target`, followed part by part from the link's folder (`folder`: its parts below the
// top), stays below the top, never steps back ("..") out of a link it passed through, whose real
// place is not its name's, and never passes through an unchecked link. `linkAt` is asked about
// paths below the top, their parts joined with "/".
inline bool LinkTargetStaysInside(std::vector<std::string> folder, const std::string& target,
                                  const std::function<LinkAt(const std::string&)>& linkAt) {
  if (target.empty() || target[0] == '/') return false;
  std::vector<bool> throughLink(folder.size(), false);  // the link's own folders hold no link
  size_t start = 0;
  while (start <= target.size()) {
    size_t slash = target.find('/', start);
    if (slash == std::string::npos) slash = target.size();
    const std::string part = target.substr(start, slash - start);
    start = slash + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (folder.empty() || throughLink.back()) return false;
      folder.pop_back();
      throughLink.pop_back();
      continue;
    }
    const bool alreadyThroughLink = !throughLink.empty() && throughLink.back();
    folder.push_back(part);
    std::string path;
    for (const std::string& each : folder) path += (path.empty() ? "" : "/") + each;
    const LinkAt link = alreadyThroughLink ? LinkAt::kNone : linkAt(path);
    if (link == LinkAt::kUnchecked) return false;
    throughLink.push_back(alreadyThroughLink || link == LinkAt::kChecked);
  }
  return true;
}

}  // namespace gpc7z
