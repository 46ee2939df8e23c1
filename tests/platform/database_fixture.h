#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "db_wrappers/sqlite/database.h"
#include "support/temp_dir.h"

namespace platform_test {

using db_wrappers::sqlite::DbValue;
using db_wrappers::sqlite::IDatabase;
using db_wrappers::sqlite::Query;

// Prepares `sql` on `db` and binds `values` from position 1; fails the test otherwise.
inline void PrepareBound(std::unique_ptr<IDatabase> const& db, Query& query, std::string_view sql,
                         std::vector<DbValue> const& values) {
  ASSERT_EQ(query.Prepare(sql), 0) << db->LastError() << " in " << sql;
  for (std::size_t i = 0; i < values.size(); ++i)
    ASSERT_EQ(query.Bind(static_cast<int>(i + 1), values[i]), 0) << db->LastError();
}

// The first column of the first row `sql` returns, asked as `alternative`.
inline DbValue Scalar(std::unique_ptr<IDatabase> const& db, std::string_view sql, int alternative,
                      std::vector<DbValue> const& values = {}) {
  Query query(db);
  PrepareBound(db, query, sql, values);
  EXPECT_EQ(query.Next(), db_wrappers::sqlite::kRowReady) << db->LastError() << " in " << sql;
  return query.Value(0, alternative);
}

// A freshly opened store file in its own temporary folder.
class DatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(db_wrappers::sqlite::Wrapper().Open(path_, db_), 0);
    ASSERT_NE(db_, nullptr);
  }

  // Runs `sql` to completion with `values` bound in order.
  void Exec(std::string_view sql, std::vector<DbValue> const& values = {}) {
    Query query(db_);
    PrepareBound(db_, query, sql, values);
    ASSERT_EQ(query.Next(), db_wrappers::sqlite::kDone) << db_->LastError() << " in " << sql;
  }

  DbValue Scalar(std::string_view sql, int alternative, std::vector<DbValue> const& values = {}) {
    return platform_test::Scalar(db_, sql, alternative, values);
  }

  test_support::TempDir dir_;
  std::string const path_ = dir_.File("store.db");
  std::unique_ptr<IDatabase> db_;
};

}  // namespace platform_test
