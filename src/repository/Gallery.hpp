#pragma once

// The gallery: static pages a person browses to see what a repository
// offers and how to install it. Every text of a manifest is untrusted and
// leaves here escaped.

#include <string>
#include <vector>

#include "tsappinstall/repository/Index.hpp"

namespace tsappinstall::repository {

// What every page says about the repository as a whole, beyond its index.
struct GallerySite {
    std::string title;      // the publisher's; empty: named after the repository
    std::string url;        // where clients read it; empty when the publisher did not say
    std::string signerKey;  // SHA-256 of the index signer's public key; empty when unsigned
};

// index.html: one card per app, its newest version first.
std::string galleryPage(const Index& index, const GallerySite& site);

// The page of one app (apps/<page>.html): `versions` are its entries,
// newest first.
std::string appPage(const std::vector<const PackageEntry*>& versions, const Index& index,
                    const GallerySite& site);

// The apps of the index, each its entries newest first, in name order.
std::vector<std::vector<const PackageEntry*>> appsOf(const Index& index);

// The page's file name under apps/ for an app's GUID.
std::string appPageName(const std::string& guid);

}  // namespace tsappinstall::repository
