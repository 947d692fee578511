// SPDX-License-Identifier: Apache-2.0
// ZebMirak::ZebMirakMapValueWrapper: a record as the tables hold it. It is the record and nothing more, with
// the one name, `fwkKey`, by which every table reaches the key of its values.
//
// It adds no bytes, so the value size in a table's header is the record's, and so is the type name.
#pragma once

#include "Lomi/Export.h"

#include <type_traits>

namespace ZebMirak {

/// `key` is the record's reader of its key. `keyStandsApart` is false in all tables: the key is part of the
/// record.
template <class Record, class Key, Key const& (Record::*key)() const, bool keyStandsApart>
class HOFLOW_EXPORT ZebMirakMapValueWrapper : public Record {
   static_assert(!keyStandsApart, "every record of these tables carries its key");

public:
   ZebMirakMapValueWrapper() = default;
   ZebMirakMapValueWrapper(Record const& record)
      : Record(record) {
      static_assert(sizeof(ZebMirakMapValueWrapper) == sizeof(Record), "the file holds the bare record");
      static_assert(std::is_trivially_copyable_v<ZebMirakMapValueWrapper>, "rows are copied as bytes");
   }

   Key const& fwkKey() const { return (this->*key)(); }
};

} // namespace ZebMirak
