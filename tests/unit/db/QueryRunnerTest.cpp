#include "db/QueryRunner.h"

#include "db/SQLiteError.h"
#include "db/TransactionGuard.h"
#include "unit/db/ConnectionHook.h"
#include "unit/db/DataProviderFixture.h"

#include <limits>

namespace agent::db {
namespace {

using test::failureOf;
using Rows = std::vector<std::vector<qparam>>;

TEST(QParam, OnlyNumbersReadAsNumbers) {
    EXPECT_EQ(qparam().asNumber(), 0);
    EXPECT_EQ(qparam(std::int32_t{-7}).asNumber(), -7);
    EXPECT_EQ(qparam(std::int64_t{1} << 40).asNumber(), std::int64_t{1} << 40);
    EXPECT_EQ(qparam(std::string("12")).asNumber(), 0);
}

TEST(QParam, CarriesItsType) {
    EXPECT_EQ(qparam().type, 0);
    EXPECT_EQ(qparam(std::int32_t{1}).type, 1);
    EXPECT_EQ(qparam(std::int64_t{1}).type, 2);
    EXPECT_EQ(qparam(std::string("a")).type, 3);
}

class QueryRunnerTest : public testing::Test {
protected:
    Rows query(const std::string& sql, const std::vector<qparam>& params = {}) {
        Rows rows = {{qparam(std::string("left over"))}};
        runner.RunQuery(sql, params, rows);
        return rows;
    }
    std::string queryFailure(const std::string& sql, const std::vector<qparam>& params = {}) {
        return failureOf([&] { query(sql, params); });
    }
    std::string updateFailure(const std::string& sql, const std::vector<qparam>& params = {}) {
        return failureOf([&] { runner.RunUpdate(sql, params); });
    }

    test::TestDirectory directory;
    std::string path = directory / "some.sqlite";
    test::RecordingLogger recorder;
    QueryRunner runner{recorder.logger, path};
};

TEST_F(QueryRunnerTest, RunsStatementsWithoutParameters) {
    runner.RunUpdate("create table t (a);", {});
    runner.RunUpdate("insert into t values (5);", {});
    EXPECT_EQ(query("select a from t;"), Rows({{qparam(std::int64_t{5})}}));
}

TEST_F(QueryRunnerTest, AQueryWithoutResultEmptiesTheRows) {
    runner.RunUpdate("create table t (a);", {});
    EXPECT_TRUE(query("select a from t;").empty());
}

TEST_F(QueryRunnerTest, ColumnsArriveByTheirType) {
    const Rows rows = query("select NULL, 9223372036854775807, 'text', 1.5, x'00ff', '';");
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0],
              std::vector<qparam>({qparam(), qparam(std::numeric_limits<std::int64_t>::max()),
                                   qparam(std::string("text")), qparam(), qparam(), qparam(std::string())}));
    EXPECT_EQ(rows[0][0].asNumber(), 0);
}

TEST_F(QueryRunnerTest, ParametersAreBoundByTheirType) {
    const Rows rows = query("select ?, typeof(?), ?;",
                            {qparam(std::numeric_limits<std::int32_t>::min()), qparam(std::string("a")),
                             qparam(std::numeric_limits<std::int64_t>::min())});
    EXPECT_EQ(rows, Rows({{qparam(std::int64_t{std::numeric_limits<std::int32_t>::min()}),
                           qparam(std::string("text")), qparam(std::numeric_limits<std::int64_t>::min())}}));
}

TEST_F(QueryRunnerTest, TextWithAnEmbeddedNulKeepsItsLength) {
    const std::string text("a\0b\0", 4);
    runner.RunUpdate("create table t (a text);", {});
    runner.RunUpdate("insert into t values (?);", {qparam(text)});
    EXPECT_EQ(query("select a from t;"), Rows({{qparam(text)}}));
    EXPECT_EQ(query("select length(cast(a as blob)) from t;"), Rows({{qparam(std::int64_t{4})}}));
}

TEST_F(QueryRunnerTest, TextOfAnUTF16DatabaseArrivesAsUTF8) {
    runner.RunUpdate("PRAGMA encoding = \"UTF-16\";", {});
    runner.RunUpdate("create table t (a text);", {});
    runner.RunUpdate("insert into t values (?);", {qparam(std::string("gr\u00fcn"))});
    EXPECT_EQ(query("select a from t;"), Rows({{qparam(std::string("gr\u00fcn"))}}));
}

TEST_F(QueryRunnerTest, AParameterWithoutTypeIsRefused) {
    EXPECT_EQ(updateFailure("select ?, ?;", {qparam(std::int32_t{1}), qparam()}),
              "runupdate unable to bind param 2 in sql select ?, ?;");
    EXPECT_EQ(queryFailure("select ?;", {qparam()}), "runquery unable to bind param 1 in sql select ?;");
}

TEST_F(QueryRunnerTest, AnUnknownTypeIsRefused) {
    qparam odd(std::int32_t{1});
    odd.type = 4;
    EXPECT_EQ(updateFailure("select ?;", {odd}), "runupdate unable to bind param 1 in sql select ?;");
}

TEST_F(QueryRunnerTest, TooManyParametersAreRefused) {
    EXPECT_EQ(updateFailure("select 1;", {qparam(std::int32_t{1})}),
              "runupdate unable to bind param 1 in sql select 1;");
}

TEST_F(QueryRunnerTest, PrepareFailuresNameTheCodeOrTheWords) {
    EXPECT_EQ(updateFailure("nonsense"), "Unable to call prepare in runupdate, sqlite return: 1");
    EXPECT_EQ(queryFailure("select a from missing;"),
              "Unable to call prepare in runquery, sqlite return: no such table: missing");
}

TEST_F(QueryRunnerTest, StepFailuresNameTheCode) {
    runner.RunUpdate("create table t (a not null);", {});
    EXPECT_EQ(updateFailure("insert into t values (NULL);"), "runupdate execution failed, step returned 19");
    EXPECT_EQ(queryFailure("select abs(-9223372036854775808);"), "runquery step returned 1");
}

TEST_F(QueryRunnerTest, AnUpdateThatReturnsRowsFails) {
    EXPECT_EQ(updateFailure("select 1;"), "runupdate execution failed, step returned 100");
}

TEST_F(QueryRunnerTest, AnEmptyStatementFails) {
    EXPECT_EQ(updateFailure(""), "runupdate execution failed, step returned 21");
    EXPECT_EQ(queryFailure("-- nothing"), "runquery step returned 21");
}

TEST_F(QueryRunnerTest, AFailureLeavesNoStatementOpen) {
    runner.RunUpdate("create table t (a unique);", {});
    runner.RunUpdate("insert into t values (1);", {});
    EXPECT_NE(updateFailure("insert into t values (1);"), "");
    runner.RunUpdate("drop table t;", {});
    EXPECT_TRUE(query("select name from sqlite_master;").empty());
}

TEST_F(QueryRunnerTest, WithoutAConnectionNothingRuns) {
    const QueryRunner taker(std::move(runner));
    EXPECT_EQ(updateFailure("select 1;"), "Sanity failure, run update called with null db handle");
    EXPECT_EQ(queryFailure("select 1;"), "Sanity failure, run query called with null db handle");
}

TEST_F(QueryRunnerTest, ADirectoryCannotBeOpened) {
    EXPECT_EQ(failureOf<SQLiteError>([&] { QueryRunner(recorder.logger, directory.path()); }),
              "QueryRunner: unable to open database file | ERROR(SQLLite) : 14 (0xe)");
}

TEST_F(QueryRunnerTest, AnOpenFailureIsALibraryErrorWithItsCode) {
    try {
        const QueryRunner runner(recorder.logger, directory / "no/such/directory");
        FAIL() << "a missing directory was opened";
    } catch (const exception::generic_library_error<int>& failure) {
        EXPECT_EQ(failure.code(), SQLITE_CANTOPEN);
    }
}

TEST(QueryRunnerClosing, ABusyConnectionIsLoggedAndLeaked) {
    const test::TestDirectory directory;
    test::RecordingLogger recorder;
    sqlite3* connection = nullptr;
    sqlite3_stmt* statement = nullptr;
    {
        const test::ConnectionHook hook([&](sqlite3* opened) { connection = opened; });
        const QueryRunner runner(recorder.logger, directory / "some.sqlite");
        ASSERT_EQ(sqlite3_prepare_v2(connection, "select 1;", -1, &statement, nullptr), SQLITE_OK);
    }
    EXPECT_TRUE(
        recorder.has(info::level::error, "Unable to close database, leaking a file handle. error: 5"));
    sqlite3_finalize(statement);
    EXPECT_EQ(sqlite3_close(connection), SQLITE_OK);
}

class TransactionGuardTest : public QueryRunnerTest {
protected:
    void insertWithin(bool commit) {
        runner.RunUpdate("create table t (a);", {});
        runner.RunUpdate("BEGIN TRANSACTION;", {});
        const TransactionGuard guard(recorder.logger, runner, commit);
        runner.RunUpdate("insert into t values (1);", {});
    }
};

TEST_F(TransactionGuardTest, CommitsWhenTold) {
    insertWithin(true);
    EXPECT_EQ(test::RawDatabase(path).value("select count(*) from t;"), "1");
}

TEST_F(TransactionGuardTest, RollsBackOtherwise) {
    insertWithin(false);
    EXPECT_EQ(test::RawDatabase(path).value("select count(*) from t;"), "0");
}

TEST_F(TransactionGuardTest, AFailureIsLoggedOnly) {
    {
        const TransactionGuard guard(recorder.logger, runner, true);
    }
    EXPECT_TRUE(recorder.has(
        info::level::error,
        "Could not finalize schema update transaction: runupdate execution failed, step returned 1"));
}

} // namespace
} // namespace agent::db
