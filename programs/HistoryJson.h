// The answers of a history as JSON. Times are in UTC, as RFC 3339 has them.
#pragma once

#include "TreeJson.h"
#include "history/Reader.h"

// {"changes": [{"time", "root", "device", "text", "place"}], "next"}. `next` is missing at the end.
Json jsonOf(const orv::history::Page<orv::history::Change>& page);

// {"id", "at", "since", "seen", "sequence", "tree"}. `tree` is missing where there was none.
Json jsonOf(const std::string& root, orv::history::Time at, const orv::history::Moment& moment);

// {"spans": [{"time", "smallest", "largest", "last", "unknown"}], "next"}. `unknown` is there where
// the value was not known at the end of the span.
Json jsonOf(const orv::history::Course& course);

Json jsonOf(const orv::history::Root& root);
