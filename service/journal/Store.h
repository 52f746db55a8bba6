#pragma once

#include <soci/soci.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "journal/Journal.h"

namespace fiscorad {

/// The connections to the journal's database: one that writes, under a lock, and a few that read. Everything
/// that depends on the kind of database stands here and in schema.cpp.
class Store {
  public:
    /// Opens the SQLite file `path`; see Journal's constructor.
    Store(const std::string& path, Journal::IfMissing ifMissing);

    /// Runs `work` with a connection that only reads. What the database throws becomes JournalError.
    template <typename Work>
    auto read(Work work) {
        return guarded([&] {
            soci::session sql(m_readers);
            return work(sql);
        });
    }

    /// Runs `work` as one transaction, alone among all writers of all processes. It is durable when this
    /// returns, and has not happened if it throws.
    template <typename Work>
    auto write(Work work) {
        const std::lock_guard lock(m_writing);
        return guarded([&] {
            Transaction transaction(m_writer);
            if constexpr (std::is_void_v<decltype(work(m_writer))>) {
                work(m_writer);
                commit(transaction);
            } else {
                auto result = work(m_writer);
                commit(transaction);
                return result;
            }
        });
    }

    /// See Journal::onCommit.
    void onCommit(std::function<void(std::chrono::nanoseconds)> committed) {
        m_committed = std::move(committed);
    }

    /// A number that changes when another process has written.
    std::int64_t foreignChanges();
    /// Runs one statement outside of any transaction.
    void execute(const std::string& statement);

    /// What the database says, in the user's language if it is common, without the statement.
    static std::string reasonOf(const soci::soci_error& error);

  private:
    /// Takes the right to write at its beginning, not at the first change: two that read first could block
    /// each other forever.
    class Transaction {
      public:
        explicit Transaction(soci::session& sql);
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;
        ~Transaction();
        void commit();

      private:
        soci::session& m_sql;
        bool m_open = true;
    };

    void commit(Transaction& transaction) {
        const auto began = std::chrono::steady_clock::now();
        transaction.commit();
        m_committed(std::chrono::steady_clock::now() - began);
    }

    template <typename Work>
    static auto guarded(Work work) {
        try {
            return work();
        } catch (const soci::soci_error& error) {
            throw JournalError(reasonOf(error));
        }
    }

    std::function<void(std::chrono::nanoseconds)> m_committed = [](std::chrono::nanoseconds) {};
    soci::connection_pool m_readers;
    std::mutex m_writing;
    soci::session m_writer;
};

}  // namespace fiscorad
