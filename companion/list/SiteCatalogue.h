#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/list/BlockList.h"

namespace orvane {

// A site of the catalogue: the hosts that people mean by its name. orvane-site(5) describes its file.
struct CatalogueSite {
  std::string id;  // the name of its file, without ".site"
  std::string name;
  std::string category;
  std::vector<ListedSite> hosts;  // each once, with the scope Subdomains or ExactName
  std::string file;
};

// Called for a fault of a site's file. `text` is the bad line; it is empty if the fault concerns the whole file.
using SiteFault = std::function<void(size_t line, std::string_view text, const std::string& fault)>;

// Reads a site's name, category and hosts from the text of its file. Reports each bad line; the other lines count.
// Returns false, and reports this, too, if the text lacks one of the three.
bool read_site_file(std::string_view text, CatalogueSite& site, const SiteFault& report);

class SiteCatalogue {
 public:
  // Reads the files of the folders. If several folders have a file of the same name, the site comes from the last of
  // these folders in which the file is usable. A folder that does not exist has no sites.
  static SiteCatalogue read(const std::vector<std::string>& folders);

  const std::vector<CatalogueSite>& sites() const { return sites_; }          // sorted by their ids
  const std::vector<std::string>& faults() const { return faults_; }          // messages for people
  std::vector<std::string> categories() const;                                // sorted
  std::vector<const CatalogueSite*> ofCategory(std::string_view name) const;  // case does not matter

  // The site with this id or name; null if there is none. Case, spaces and punctuation do not count.
  const CatalogueSite* find(std::string_view name) const;
  // The sites that have the word in their id, their name or one of their hosts, or that have it as their category.
  std::vector<const CatalogueSite*> search(std::string_view word) const;
  // For a word that names no site: the sites that the user may have meant, at most three, the most similar first.
  std::vector<const CatalogueSite*> similar(std::string_view word) const;

 private:
  void readFolder(const std::string& folder);
  void readFile(const std::string& path, const std::string& id);

  std::vector<CatalogueSite> sites_;
  std::vector<std::string> faults_;
};

}  // namespace orvane
