#pragma once

// The gallery: static pages a person browses to see what a repository
// offers. Every text of a manifest is untrusted and leaves here escaped.

#include <string>
#include <vector>

#include "tsappinstall/repository/Index.hpp"

namespace tsappinstall::repository {

// index.html: one card per app, its newest version first.
std::string galleryPage(const Index& index);

// The page of one app (apps/<page>.html): `versions` are its entries,
// newest first.
std::string appPage(const std::vector<const PackageEntry*>& versions);

// The apps of the index, each its entries newest first, in name order.
std::vector<std::vector<const PackageEntry*>> appsOf(const Index& index);

// The page's file name under apps/ for an app's GUID.
std::string appPageName(const std::string& guid);

}  // namespace tsappinstall::repository
