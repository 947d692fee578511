// SPDX-License-Identifier: Apache-2.0
#include "Parcel/OwnerFile.h"

#include "Lomi/Exception.h"
#include "Lomi/HashMix.h"
#include "Mem/FileCalls.h"
#include "Mem/LockedFile.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Parcel {

// Part of the file format; little-endian. Texts end with a NUL and are filled up with NULs.
struct OwnerFile::Record {
   char magic[8];
   u32 version;
   u32 size;
   u64 startTime; // nanoseconds since 1970, when the process first wrote an owner record
   u32 pid;
   u32 parcelType;
   char typeName[512];
   char socketName[108];
   u32 tableId;
   u32 spare;
   u32 check; // of all bytes before it
};

namespace {

constexpr char recordMagic[9] = "HOFOWNER";
constexpr u32 recordVersion = 1;
constexpr int readAttempts = 100;

u64 processStart() {
   static u64 const start = [] {
      timespec now{};
      clock_gettime(CLOCK_REALTIME, &now);
      return static_cast<u64>(now.tv_sec) * 1000000000u + static_cast<u64>(now.tv_nsec);
   }();
   return start;
}

template <std::size_t size> bool terminated(char const (&text)[size]) {
   return std::memchr(text, 0, size) != nullptr;
}

template <std::size_t size> void copyText(char (&into)[size], std::string const& text, char const* what) {
   if (text.size() >= size || text.find('\0') != std::string::npos)
      throw Lomi::InvalidInitializeException(
          fmt::format("{} \"{}\" exceeds {} characters or holds a NUL", what, text, size - 1));
   std::memset(into, 0, size);
   std::memcpy(into, text.data(), text.size());
}

[[noreturn]] void throwFor(std::string const& what, Mem::FileCalls::Outcome const& outcome) {
   std::string const text = what + ": " + outcome.text();
   if (outcome.error() == ENOSPC || outcome.error() == ENOMEM || outcome.error() == EDQUOT)
      throw Lomi::MemoryResourceException(text);
   throw Lomi::RuntimeException(text);
}

template <class Record> u32 checkOf(Record const& record) {
   Lomi::Impl::HashMix<unsigned int> hash(0x811c9dc5);
   hash.mix(&record, offsetof(Record, check));
   return hash.value();
}

} // namespace

OwnerFile::OwnerFile(Lomi::Platform::DebugHandler const&, Mem::NaoRootPath const& rootPath, bool local)
   : rootPath_(rootPath)
   , local_(local) {
   static_assert(sizeof(Record) == 664 && offsetof(Record, check) == 660, "part of the file format");
   static_assert(sizeof(Record) < 4096,
                 "one page, so that a killed writer leaves the old record or the new one");
}

OwnerFile::~OwnerFile() = default;

std::string OwnerFile::getFilename() const { return rootPath_.str() + "/" + FILENAME; }

void OwnerFile::lock() {
   if (local_ || locked_) return;
   std::string error;
   locked_ = Mem::LockedFile::open(rootPath_, FILENAME, serialiseByte, Mem::LockedFile::Wait::yes, error);
   if (!locked_) throw Lomi::InvalidInitializeException(fmt::format("cannot lock the owner file {}", error));
}

// A writer may be at work on the record: a copy whose checksum fails is taken again before it counts as
// damage. `refused` tells apart what the system doesn't let us see.
bool OwnerFile::read(Record& record, std::string& error, bool* refused) const {
   // Under lock() the file is open already: a lack of descriptors must not look like damage.
   int fd = locked_ ? locked_->fd() : -1;
   Mem::Descriptor file;
   if (fd < 0) {
      if (Mem::Descriptor const directory = rootPath_.openDirectory())
         file = Mem::Descriptor(
             ::openat(directory.get(), FILENAME, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
      fd = file.get();
   }
   if (fd < 0) {
      int const reason = errno;
      if (refused)
         *refused =
             reason == EACCES || reason == EPERM || reason == EMFILE || reason == ENFILE || reason == ENOMEM;
      error = fmt::format("{}: {}", getFilename(), std::strerror(reason));
      return false;
   }
   auto const bad = [&](std::string const& why) {
      error = fmt::format("{}: {}", getFilename(), why);
      return false;
   };
   for (int attempt = 1;; ++attempt) {
      record = {};
      ssize_t const got = ::pread(fd, &record, sizeof(record), 0);
      if (got < 0) return bad(std::strerror(errno));
      if (got != static_cast<ssize_t>(sizeof(record)))
         return bad(fmt::format("bad owner size:{} wanted:{}", got, sizeof(record)));
      if (record.check == checkOf(record)) break;
      if (attempt == readAttempts)
         return bad(fmt::format("owner checksum fail: {:x} != {:x}", checkOf(record), record.check));
      ::sched_yield();
   }
   if (std::memcmp(record.magic, recordMagic, sizeof(record.magic)) != 0) return bad("bad owner magic");
   if (record.version != recordVersion)
      return bad(fmt::format("bad owner version:{} wanted:{}", record.version, recordVersion));
   if (record.size != sizeof(record))
      return bad(fmt::format("bad owner record size:{} wanted:{}", record.size, sizeof(record)));
   if (!terminated(record.typeName) || !terminated(record.socketName)) return bad("unterminated owner text");
   return true;
}

OwnerFile::Record OwnerFile::readOrThrow() const {
   Record record{};
   std::string error;
   bool refused = false;
   if (local_ || read(record, error, &refused)) return record;
   if (refused) throw Lomi::RuntimeException("cannot read " + error);
   throw Lomi::CorruptionDetectedException(error);
}

OwnerFile::Record OwnerFile::readOrNew() const {
   Record record{};
   std::string error;
   if (!read(record, error)) record = {};
   return record;
}

void OwnerFile::write(Record& record) {
   std::memcpy(record.magic, recordMagic, sizeof(record.magic));
   record.version = recordVersion;
   record.size = sizeof(record);
   record.startTime = processStart();
   record.pid = static_cast<u32>(::getpid());
   record.check = checkOf(record);
   std::string const failure = fmt::format("cannot write {}", getFilename());
   Mem::Descriptor opened;
   int fd = locked_ ? locked_->fd() : -1;
   if (fd < 0) {
      rootPath_.makeDirectories();
      Mem::Descriptor const directory = rootPath_.openDirectory();
      if (!directory) throwFor(failure, errno);
      Mem::FileCalls::Outcome outcome;
      opened = Mem::Descriptor(Mem::FileCalls::openCreate(directory.get(), FILENAME, getFilename(), outcome));
      if (!opened) throwFor(failure, outcome);
      fd = opened.get();
   }
   auto const outcome = Mem::FileCalls::write(fd, getFilename(), 0, &record, sizeof(record));
   if (!outcome) throwFor(failure, outcome);
}

bool OwnerFile::directoryHoldsTable() const {
   for (char const* name : {"slots", "buckets", "kestor"}) {
      struct stat status {};
      if (::lstat((rootPath_.str() + "/" + name).c_str(), &status) == 0) return true;
   }
   return false;
}

bool OwnerFile::validate() const {
   std::string error;
   return validate(error);
}

bool OwnerFile::validate(std::string& error) const {
   if (local_) return true;
   Record record;
   if (read(record, error)) return true;
   // lock() makes an empty file; that and an absent one are the state before a directory's first table.
   struct stat status {};
   bool const fresh = ::lstat(getFilename().c_str(), &status) == 0
                          ? S_ISREG(status.st_mode) && status.st_size == 0
                          : errno == ENOENT || errno == ENAMETOOLONG;
   if (!fresh || directoryHoldsTable()) return false;
   error.clear();
   return true;
}

bool OwnerFile::validateFile() const {
   readOrThrow();
   return true;
}

void OwnerFile::typeNameIs(std::string const& typeName) {
   if (local_) return;
   Record record = readOrNew();
   copyText(record.typeName, typeName, "type name");
   write(record);
}

void OwnerFile::parcelTypeIs(ParcelType type) {
   if (local_) return;
   Record record = readOrNew();
   record.parcelType = static_cast<u32>(type);
   write(record);
}

void OwnerFile::tunnetInfoIs(TunnetInfo const& info) {
   if (local_) return;
   Record record = readOrNew();
   copyText(record.socketName, info.socketName, "socket name");
   record.tableId = info.tableId;
   write(record);
}

void OwnerFile::refreshOwner() {
   Record record;
   std::string error;
   if (!local_ && read(record, error)) write(record);
}

TunnetInfo OwnerFile::tunnetInfo() const {
   Record const record = readOrThrow();
   return {record.socketName, record.tableId};
}

std::string OwnerFile::typeName() const { return readOrThrow().typeName; }

ParcelType OwnerFile::parcelType() const { return static_cast<ParcelType>(readOrThrow().parcelType); }

u32 OwnerFile::pid() const {
   Record record;
   std::string error;
   return !local_ && read(record, error) ? record.pid : 0;
}

std::optional<OwnerFacts> OwnerFile::facts(std::string& error) const {
   Record record;
   if (local_ || !read(record, error)) return std::nullopt;
   return OwnerFacts{record.version,  record.pid,        record.startTime,
                     record.typeName, record.parcelType, {record.socketName, record.tableId}};
}

std::string OwnerFile::headerToString() const {
   if (local_) return "local";
   std::string error;
   auto const f = facts(error);
   if (!f) return error;
   return fmt::format(
       "version:{} pid:{} startTime:{}.{:09} typeName:\"{}\" parcelType:{} socketName:\"{}\" tableId:{}",
       f->version, f->pid, f->startTime / 1000000000u, f->startTime % 1000000000u, f->typeName, f->parcelType,
       f->tunnetInfo.socketName, f->tunnetInfo.tableId);
}

void OwnerFile::remove() {
   if (local_) return;
   Mem::Descriptor const directory = rootPath_.openDirectory();
   std::string const failure = fmt::format("cannot remove {}", getFilename());
   if (!directory && errno == ENOENT) return;
   if (!directory) throwFor(failure, errno);
   auto const outcome = Mem::FileCalls::unlink(directory.get(), FILENAME, getFilename());
   if (!outcome) throwFor(failure, outcome);
}

} // namespace Parcel
