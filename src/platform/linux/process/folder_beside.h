// Folders that others may put in the place of those in which this process writes.
#pragma once

#include <string>
#include <vector>

namespace trabex {

// What the program reads, and what therefore decides what it does.
struct DecidingPlaces {
  // Files, and folders in which one of them, or a link to one, could be replaced.
  std::vector<std::string> places;
  // Files, and folders of which anything below may be read.
  std::vector<std::string> trees;
};

// Whether this process may be let write in the parent of `folder`, with all that is below, so that another folder can
// take the place of `folder`: not as root, and not where there is something below by which who got hold of the process
// would get further. That is what the user may change of his home, of the program's own folder and of `deciding`; a tree
// counts in any case when it is a folder, since some of what is in it may be his. What lies in one of `written` can be
// changed in any case.
bool MayWriteBeside(const std::string& folder, const DecidingPlaces& deciding,
                    const std::vector<std::string>& written);

// The folder that holds `folder`, or "" when there is none.
std::string ParentOf(const std::string& folder);

}  // namespace trabex
