#pragma once

// A subtree as its ordered list of records, and back.

#include <vector>

#include "raw_setting.h"
#include "settings_manager/setting.h"
#include "uvc/error.h"
#include "uvc/id.h"

namespace settings_manager {

// The records of `setting` and its whole subtree placed at `path`, parents before
// children, map entries in key order, list elements in index order. On success `out`
// holds exactly these records; on failure it is left as it was.
uvc::Result Serialize(uvc::Path const& path, Setting const& setting,
                      std::vector<impl::RawItem>& out);
uvc::Result Serialize(uvc::aux::RefRange const& path, Setting const& setting,
                      std::vector<impl::RawItem>& out);

// Rebuilds the subtree whose root is the first record. The records must come in
// ascending order of path text (as the database hands them over): the parent of each is
// found by depth alone. On success moves the head's path and the subtree into
// `headPath` and `head`; on failure leaves both as they were. Refuses with 0x8000005E a
// path deeper than kMaxDepth, and list gaps that together need more placeholders than
// there are records: the memory it takes stays a small multiple of the records'.
uvc::Result Deserialize(std::vector<impl::RawItem> const& items, uvc::Path& headPath,
                        Setting& head);

// The same from records read one at a time, so that no record is held once placed. The
// result is that of the same records in a vector; a failure of the source itself (it
// could not read a record) is no result: its exception leaves, after the source has been
// read to its end when a record could not be decoded.
uvc::Result Deserialize(impl::RawSource& rows, uvc::Path& headPath, Setting& head);

}  // namespace settings_manager
