// What the rows of a segment stand for.
#pragma once

#include <string>

#include "history/Store.h"
#include "reporting/Publication.h"

namespace orv::history {

// The tree that a row holds which begins a segment; empty for none. Throws Error.
reporting::Tree treeOf(const Store& store, const Row& row);

// The event that a row of a root stands for: of a checkpoint one that has the whole tree, which
// changes nothing. Throws Error.
reporting::Event eventOf(const Store& store, const std::string& root, const Row& row);

// The tree after the last row. Throws Error.
reporting::Tree treeOf(const Store& store, const Segment& segment);

// Of the last row.
reporting::Sequence sequenceOf(const Segment& segment);

}  // namespace orv::history
