#include "Platform/SQLite/EnvVfs.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "Platform/File/Env.h"

namespace Moreld::SQLite {

namespace {

using Moreld::File::Env;

constexpr char kVfsName[] = "loopstore";

// SQLite allocates szOsFile bytes per open file: this header, then the unix
// VFS's own file object.
struct EnvFile {
    sqlite3_file base;
    const char* path;  // SQLite keeps the name valid until xClose; null for temp files
    bool created;      // this open created the file
    bool directorySynced;
    sqlite3_file* Real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

sqlite3_vfs* UnixVfs(sqlite3_vfs* vfs) {
    return static_cast<sqlite3_vfs*>(vfs->pAppData);
}

EnvFile* Cast(sqlite3_file* file) {
    return reinterpret_cast<EnvFile*>(file);
}

sqlite3_file* Real(sqlite3_file* file) {
    return Cast(file)->Real();
}

int WriteError(const std::error_code& error) {
    return error.value() == ENOSPC ? SQLITE_FULL : SQLITE_IOERR_WRITE;
}

// --- io methods: forwarded, with the Env told first ------------------------

int Close(sqlite3_file* file) {
    return Real(file)->pMethods->xClose(Real(file));
}

int Read(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    return Real(file)->pMethods->xRead(Real(file), buffer, amount, offset);
}

int Write(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    if (const char* path = Cast(file)->path) {
        if (std::error_code error = Env::Get().NotifyWriteBefore(path, offset, amount)) {
            return WriteError(error);
        }
    }
    return Real(file)->pMethods->xWrite(Real(file), buffer, amount, offset);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    if (const char* path = Cast(file)->path) {
        if (std::error_code error = Env::Get().NotifyTruncateBefore(path, size)) {
            return SQLITE_IOERR_TRUNCATE;
        }
    }
    return Real(file)->pMethods->xTruncate(Real(file), size);
}

int SyncDirectoryOnce(EnvFile* file) {
    if (!file->created || file->directorySynced) {
        return SQLITE_OK;
    }
    if (Env::Get().SyncDirectory(Moreld::File::ParentDirectory(file->path))) {
        return SQLITE_IOERR_DIR_FSYNC;
    }
    file->directorySynced = true;
    return SQLITE_OK;
}

int Sync(sqlite3_file* file, int flags) {
    EnvFile* self = Cast(file);
    if (self->path != nullptr && Env::Get().NotifySyncBefore(self->path)) {
        return SQLITE_IOERR_FSYNC;
    }
    const int rc = Real(file)->pMethods->xSync(Real(file), flags);
    if (rc != SQLITE_OK || self->path == nullptr) {
        return rc;
    }
    Env::Get().NotifySyncAfter(self->path);
    return SyncDirectoryOnce(self);
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    return Real(file)->pMethods->xFileSize(Real(file), size);
}

int Lock(sqlite3_file* file, int level) {
    return Real(file)->pMethods->xLock(Real(file), level);
}

int Unlock(sqlite3_file* file, int level) {
    return Real(file)->pMethods->xUnlock(Real(file), level);
}

int CheckReservedLock(sqlite3_file* file, int* out) {
    return Real(file)->pMethods->xCheckReservedLock(Real(file), out);
}

int FileControl(sqlite3_file* file, int op, void* arg) {
    return Real(file)->pMethods->xFileControl(Real(file), op, arg);
}

int SectorSize(sqlite3_file* file) {
    return Real(file)->pMethods->xSectorSize(Real(file));
}

int DeviceCharacteristics(sqlite3_file* file) {
    return Real(file)->pMethods->xDeviceCharacteristics(Real(file));
}

// The shared-memory index is a cache SQLite rebuilds from the log after a
// crash: its effects need no watching.
int ShmMap(sqlite3_file* file, int page, int size, int extend, void volatile** out) {
    return Real(file)->pMethods->xShmMap(Real(file), page, size, extend, out);
}

int ShmLock(sqlite3_file* file, int offset, int n, int flags) {
    return Real(file)->pMethods->xShmLock(Real(file), offset, n, flags);
}

void ShmBarrier(sqlite3_file* file) {
    Real(file)->pMethods->xShmBarrier(Real(file));
}

int ShmUnmap(sqlite3_file* file, int deleteFlag) {
    return Real(file)->pMethods->xShmUnmap(Real(file), deleteFlag);
}

int Fetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** out) {
    return Real(file)->pMethods->xFetch(Real(file), offset, amount, out);
}

int Unfetch(sqlite3_file* file, sqlite3_int64 offset, void* page) {
    return Real(file)->pMethods->xUnfetch(Real(file), offset, page);
}

const sqlite3_io_methods kIoMethods = {3,
                                       Close,
                                       Read,
                                       Write,
                                       Truncate,
                                       Sync,
                                       FileSize,
                                       Lock,
                                       Unlock,
                                       CheckReservedLock,
                                       FileControl,
                                       SectorSize,
                                       DeviceCharacteristics,
                                       ShmMap,
                                       ShmLock,
                                       ShmBarrier,
                                       ShmUnmap,
                                       Fetch,
                                       Unfetch};

// --- vfs methods -----------------------------------------------------------

int Open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    EnvFile* self = Cast(file);
    self->base.pMethods = nullptr;
    self->path = name;
    self->created =
        name != nullptr && (flags & SQLITE_OPEN_CREATE) != 0 && ::access(name, F_OK) != 0;
    self->directorySynced = false;
    const int rc = UnixVfs(vfs)->xOpen(UnixVfs(vfs), name, self->Real(), flags, outFlags);
    if (rc != SQLITE_OK) {
        return rc;
    }
    self->base.pMethods = &kIoMethods;
    if (self->created) {
        Env::Get().NotifyCreated(name);
    }
    return SQLITE_OK;
}

int Delete(sqlite3_vfs*, const char* name, int syncDirectory) {
    if (std::error_code error = Env::Get().RemoveFile(name)) {
        return error.value() == ENOENT ? SQLITE_IOERR_DELETE_NOENT : SQLITE_IOERR_DELETE;
    }
    if (syncDirectory != 0 && Env::Get().SyncDirectory(Moreld::File::ParentDirectory(name))) {
        return SQLITE_IOERR_DIR_FSYNC;
    }
    return SQLITE_OK;
}

int Access(sqlite3_vfs* vfs, const char* name, int flags, int* out) {
    return UnixVfs(vfs)->xAccess(UnixVfs(vfs), name, flags, out);
}

int FullPathname(sqlite3_vfs* vfs, const char* name, int size, char* out) {
    return UnixVfs(vfs)->xFullPathname(UnixVfs(vfs), name, size, out);
}

sqlite3_vfs MakeVfs(sqlite3_vfs* unix) {
    sqlite3_vfs vfs = *unix;  // dlopen, randomness, sleep, time: SQLite's own
    vfs.szOsFile = static_cast<int>(sizeof(EnvFile)) + unix->szOsFile;
    vfs.pNext = nullptr;
    vfs.zName = kVfsName;
    vfs.pAppData = unix;
    vfs.xOpen = Open;
    vfs.xDelete = Delete;
    vfs.xAccess = Access;
    vfs.xFullPathname = FullPathname;
    return vfs;
}

}  // namespace

const char* EnvVfsName() {
    static std::once_flag once;
    static sqlite3_vfs vfs;
    std::call_once(once, [] {
        sqlite3_vfs* unix = sqlite3_vfs_find("unix");
        if (unix == nullptr || unix->iVersion < 3) {
            throw std::runtime_error("SQLite has no unix VFS to build on");
        }
        vfs = MakeVfs(unix);
        if (sqlite3_vfs_register(&vfs, 0) != SQLITE_OK) {
            throw std::runtime_error("Cannot register the loopstore SQLite VFS");
        }
    });
    return kVfsName;
}

}  // namespace Moreld::SQLite
