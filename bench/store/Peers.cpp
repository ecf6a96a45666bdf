#include "Peers.h"

#include <absl/container/flat_hash_map.h>
#include <lmdb.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

namespace StoreBench {
namespace {

constexpr std::size_t kOperationsPerTransaction = 100;

void check(int result) {
  if (result != MDB_SUCCESS) {
    std::fprintf(stderr, "lmdb: %s\n", mdb_strerror(result));
    std::exit(1);
  }
}

template <class T>
MDB_val value(T& object) {
  return MDB_val{sizeof object, &object};
}

}  // namespace

struct Lmdb::Impl {
  MDB_env* environment = nullptr;
  MDB_dbi config = 0;
  MDB_dbi log = 0;
  MDB_dbi words = 0;
};

Lmdb::Lmdb(const std::string& folder) : impl_(std::make_unique<Impl>()) {
  ::mkdir(folder.c_str(), 0700);
  check(mdb_env_create(&impl_->environment));
  check(mdb_env_set_mapsize(impl_->environment, 256U << 20));
  check(mdb_env_set_maxdbs(impl_->environment, 3));
  check(mdb_env_open(impl_->environment, folder.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0600));
  MDB_txn* transaction = nullptr;
  check(mdb_txn_begin(impl_->environment, nullptr, 0, &transaction));
  check(mdb_dbi_open(transaction, "config", MDB_CREATE | MDB_INTEGERKEY, &impl_->config));
  check(mdb_dbi_open(transaction, "log", MDB_CREATE | MDB_INTEGERKEY, &impl_->log));
  check(mdb_dbi_open(transaction, "words", MDB_CREATE | MDB_INTEGERKEY, &impl_->words));
  check(mdb_txn_commit(transaction));
}

Lmdb::~Lmdb() { mdb_env_close(impl_->environment); }

void Lmdb::write(const std::vector<std::uint32_t>& keys, std::uint64_t firstVersion) {
  std::uint64_t version = firstVersion;
  for (std::size_t from = 0; from < keys.size(); from += kOperationsPerTransaction) {
    MDB_txn* transaction = nullptr;
    check(mdb_txn_begin(impl_->environment, nullptr, 0, &transaction));
    const std::size_t to = std::min(keys.size(), from + kOperationsPerTransaction);
    for (std::size_t i = from; i < to; ++i, ++version) {
      std::uint32_t key = keys[i];
      ConfigRecord config = configRecord(key, version);
      LogRecord log = logRecord(key, version);
      MDB_val keyValue = value(key);
      MDB_val data = value(config);
      check(mdb_put(transaction, impl_->config, &keyValue, &data, 0));
      keyValue = value(log.version);
      data = value(log);
      check(mdb_put(transaction, impl_->log, &keyValue, &data, MDB_APPEND));
      std::uint32_t word = 0;
      keyValue = value(word);
      data = value(version);
      check(mdb_put(transaction, impl_->words, &keyValue, &data, 0));
    }
    check(mdb_txn_commit(transaction));
  }
}

std::uint64_t Lmdb::read(const std::vector<std::uint32_t>& keys) const {
  std::uint64_t sum = 0;
  for (std::size_t from = 0; from < keys.size(); from += kOperationsPerTransaction) {
    MDB_txn* transaction = nullptr;
    check(mdb_txn_begin(impl_->environment, nullptr, MDB_RDONLY, &transaction));
    const std::size_t to = std::min(keys.size(), from + kOperationsPerTransaction);
    for (std::size_t i = from; i < to; ++i) {
      std::uint32_t key = keys[i];
      MDB_val keyValue = value(key);
      MDB_val data{};
      check(mdb_get(transaction, impl_->config, &keyValue, &data));
      ConfigRecord record;
      std::memcpy(&record, data.mv_data, sizeof record);
      sum += record.version + record.key.port;
    }
    mdb_txn_abort(transaction);
  }
  return sum;
}

void Lmdb::clear() {
  MDB_txn* transaction = nullptr;
  check(mdb_txn_begin(impl_->environment, nullptr, 0, &transaction));
  check(mdb_drop(transaction, impl_->config, 0));
  check(mdb_drop(transaction, impl_->log, 0));
  check(mdb_txn_commit(transaction));
}

struct PrivateMap::Impl {
  absl::flat_hash_map<std::uint32_t, ConfigRecord> config;
  std::deque<LogRecord> log;
  std::uint64_t version = 0;
};

PrivateMap::PrivateMap() : impl_(std::make_unique<Impl>()) { impl_->config.reserve(kKeys); }

PrivateMap::~PrivateMap() = default;

void PrivateMap::write(const std::vector<std::uint32_t>& keys, std::uint64_t firstVersion) {
  std::uint64_t version = firstVersion;
  for (const std::uint32_t key : keys) {
    impl_->config.insert_or_assign(key, configRecord(key, version));
    impl_->log.push_back(logRecord(key, version));
    impl_->version = version++;
  }
}

std::uint64_t PrivateMap::read(const std::vector<std::uint32_t>& keys) const {
  std::uint64_t sum = 0;
  for (const std::uint32_t key : keys) {
    const auto found = impl_->config.find(key);
    const ConfigRecord record = found->second;
    sum += record.version + record.key.port;
  }
  return sum;
}

void PrivateMap::clear() {
  impl_->config.clear();
  impl_->config.reserve(kKeys);
  impl_->log.clear();
}

}  // namespace StoreBench
