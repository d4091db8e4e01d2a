// The rule a symbolic link's target must meet to be unpacked, shared by lib7zip.so, which enforces
// it, and gpc-pack, which packs nothing the unpacker would refuse.
#pragma once

#include <string>
#include <vector>

namespace gpc7z {

// What lies at a place below the top: no link, a link whose target is judged by this rule too
// and followed, or a link whose target nobody checked (already on disk).
enum class LinkAt { kNone, kChecked, kUnchecked };

// Links followed in one walk at most, as many as the system follows in one lookup.
constexpr int kMaxLinksFollowed = 40;

// Follows `target` part by part from `*folder` (the places from the top down, the top left out),
// as the system will once everything is in place: each checked link on the way is followed to its
// own target. False when the walk leaves the top, meets an unchecked link or follows too many.
// `Tree` gives Top(), Down(place, part), At(place), for a checked link Target(place), and Step(),
// false when the walks have taken too long.
template <typename Tree>
bool FollowInside(Tree& tree, std::vector<typename Tree::Place>* folder, const std::string& target, int* followed) {
  if (target.empty() || target[0] == '/') return false;
  size_t start = 0;
  while (start <= target.size()) {
    size_t slash = target.find('/', start);
    if (slash == std::string::npos) slash = target.size();
    const std::string part = target.substr(start, slash - start);
    start = slash + 1;
    if (part.empty() || part == ".") continue;
    if (!tree.Step()) return false;
    if (part == "..") {
      if (folder->empty()) return false;
      folder->pop_back();
      continue;
    }
    const typename Tree::Place place = tree.Down(folder->empty() ? tree.Top() : folder->back(), part);
    const LinkAt link = tree.At(place);
    if (link == LinkAt::kUnchecked) return false;
    if (link == LinkAt::kNone) {
      folder->push_back(place);
    } else if (++*followed > kMaxLinksFollowed || !FollowInside(tree, folder, tree.Target(place), followed)) {
      return false;
    }
  }
  return true;
}

// True when the target of a link in `folder` stays below the top, followed as above.
template <typename Tree>
bool LinkTargetStaysInside(Tree& tree, std::vector<typename Tree::Place> folder, const std::string& target) {
  int followed = 0;
  return FollowInside(tree, &folder, target, &followed);
}

}  // namespace gpc7z
