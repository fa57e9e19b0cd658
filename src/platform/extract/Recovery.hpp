#pragma once

// What is done with the staging folders of extractions that died (see
// Journal.hpp for what they hold).

#include <string>

#include "platform/extract/FileOps.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"

namespace opc::detail {

// Repairs and removes the staging folders of dead extractions into the
// folder `name` below `parent` (an open descriptor, or -1 when the parent
// cannot be read) whose own descriptor is `destination` (or -1 while it
// does not exist). `path` is its absolute path, for messages. With
// `discardUnreadable`, a staging folder of ours whose journal cannot be
// read is removed instead of reported.
void recoverDestination(const FileOps& ops, int parent, int destination, const std::string& path,
                        const std::string& name, bool discardUnreadable, extraction::Recovery& out);

}  // namespace opc::detail
