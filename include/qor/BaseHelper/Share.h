/// @file
/// Named memory that several processes map, and the frame that builds one object in it exactly once.
///
/// `chMapFile` is a shared-memory segment that lives until the device restarts, `chRawMapFile` an ordinary
/// file that outlives even that, `chMapFile_Local` plain heap memory with the same operation names.
///
/// `ipcObjectFrame<T>` puts an object `T` at the start of such memory. The frame is itself the mutex that
/// guards the object. The first process that opens it constructs the object; every later one finds it
/// finished. When a creator dies before it is done, the next process to open the frame constructs the
/// object again.
///
/// `T` begins with an `ipcObjectHeader` and holds fixed-width words and bytes only. Its constructor builds
/// the whole initial state and calls InitHeader() as its **last** statement: the type number, which is never
/// 0, is what makes the object count as constructed. The memory is all zero when the constructor starts;
/// what the constructor leaves alone stays so.
///
/// @code
/// struct counterObject : QOR_BaseHelper::ipcObjectHeader {
///     counterObject() : m_nCount(0) { InitHeader(4096, 2001); }
///     int32_t m_nCount;
/// };
/// QOR_BaseHelper::ipcObjectFrame<counterObject> frame;
/// frame.OpenShareObject("app_counter", 4096);
/// frame.getObject()->AssertHeader("app_counter", 4096, 2001);
/// if (frame.Lock(-1)) {
///     counterObject* pCounter = frame.getObject();
///     QOR_ChainHelper::storeShareWord(pCounter->m_nCount, pCounter->m_nCount + 1);
///     frame.Unlock();
/// }
/// @endcode
#ifndef QOR_BASEHELPER_SHARE_H
#define QOR_BASEHELPER_SHARE_H

#include <new>
#include <type_traits>

#include "qor/BaseHelper/Sync.h"
#include "qor/ChainHelper/ShareWord.h"
#include "qor/StringHelper.h"

namespace QOR_BaseHelper {

/// A named System V shared-memory segment.
class QOR_API chMapFile : public xFileKey {
public:
    chMapFile() = default;

    /// Fatal when the segment was neither closed nor destroyed.
    ~chMapFile();

    /// Maps the segment of that name, or creates it with nSize zero bytes.
    /// @return its address; owned by this object. A failure, also an existing segment smaller than nSize, is
    ///         a warning and a fatal assertion (null). Fatal when already open.
    void* OpenMapFile(const char* lpszName, int nSize);

    /// Opens the journal of the segment, which is mapped and guarded by a semaphore that the calling thread has taken,
    /// and undoes what a killed process has left unfinished. For ipcObjectFrame. @return false after a failure. Fatal:
    /// processes use the segment and its journal is missing; something else has the key of the journal.
    bool OpenJournal(int fdSemaphore);

    /// Only checks that the segment is mapped (fatal otherwise): there is nothing to write back.
    void Flush();

    /// Unmaps the segment; it and its key file stay. Fatal when not open.
    void CloseMapFile();

    /// Unmaps the segment and removes it from the device, with its key file unless that meanwhile belongs to
    /// another object. Processes that still map the segment keep their mapping. Fatal when not open.
    void DestroyMapFile();

    /// Whether the calling task created the segment with this object. Fatal when not open.
    BOOL IsCreateByMe();

    /// Warns when living processes use another segment of the same size, that begins with the same ipcObjectHeader and
    /// that no key file leads to: there is a second device next to the first. For a segment that was just
    /// created and has its header. Reads the kernel's table of segments.
    void WarnOfTwin() const;

    /// The address of the memory, null while closed.
    void* getData() const { return m_pMapData; }

    /// Room for notes next to the segment, 131,072 bytes that are zero at first: for what processes tell about
    /// themselves and what need not survive them. No section undoes them. Null without a journal.
    void* getNotes() const;

private:
    void unmap();

    int32_t m_idCreator = -1;
    void* m_pMapData = nullptr;
    int32_t m_fdMapFile = -1;
    int32_t m_fdJournalGuard = -1;  ///< the semaphore under which the journal is open
};

/// An ordinary file, mapped. What is written to it outlives a restart of the device.
class QOR_API chRawMapFile {
public:
    chRawMapFile() = default;
    chRawMapFile(const chRawMapFile&) = delete;
    chRawMapFile& operator=(const chRawMapFile&) = delete;

    /// Closes the file.
    ~chRawMapFile();

    /// Maps the file at that path, which is made when it is missing; a symbolic link is refused.
    ///
    /// A file shorter than nSize is extended before it is mapped, with its blocks, so that writing to the
    /// memory never fails for want of space. The process that finds the file empty counts as its creator.
    /// @param lpszPath at most 256 characters
    /// @param nSize bytes to map; -1 takes the length of the file
    /// @return the address; a failure is a warning and a fatal assertion (null). Fatal when already open.
    void* OpenMapFile(const char* lpszPath, int nSize);

    /// Opens the journal of the file, the file of the same name with ".journal" after it; otherwise as
    /// chMapFile::OpenJournal(). For ipcObjectFrame.
    bool OpenJournal(int fdSemaphore);

    /// Writes the memory back to the file, with its journal, and waits for the medium; warns on failure. What was
    /// changed until then stays, also after a power cut. Fatal when not mapped.
    void Flush();

    /// Unmaps and closes the file; the path is kept. Harmless when closed.
    void CloseMapFile();

    /// CloseMapFile(), then deletes the file and forgets the path.
    void DestroyMapFile();

    /// Whether the calling task found the file empty and sized it. Fatal when not open.
    BOOL IsCreateByMe();

    /// The address of the memory, null while closed.
    void* getData() const { return m_pMapData; }

private:
    static constexpr int maxPath = 256;

    bool openFile(const char* lpszPath);
    bool sizeFile();
    bool growFile();

    QOR_StringHelper::chStaticTextT<char, maxPath> m_strPath;
    int32_t m_fdMapFile = -1;
    void* m_pMapData = nullptr;
    int32_t m_nMapSize = -1;  ///< bytes mapped, -1 when unknown
    int32_t m_idCreator = -1;
    int32_t m_fdJournalGuard = -1;  ///< the semaphore under which the journal is open
};

/// The in-process variant of a map file: zeroed heap memory.
class QOR_API chMapFile_Local {
public:
    chMapFile_Local() = default;
    chMapFile_Local(const chMapFile_Local&) = delete;
    chMapFile_Local& operator=(const chMapFile_Local&) = delete;

    /// Fatal when the memory was not freed.
    ~chMapFile_Local();

    /// @return nSize bytes, or null; the name is ignored. Fatal when already open.
    void* OpenMapFile(const char* lpszName, int nSize);
    /// Only checks that there is memory (fatal otherwise).
    void Flush();
    /// Frees the memory.
    void CloseMapFile();
    /// Frees the memory.
    void DestroyMapFile();
    /// @return 1.
    BOOL IsCreateByMe();
    /// The address of the memory, null while closed.
    void* getData() const { return m_pMapData; }

private:
    void* m_pMapData = nullptr;
};

/// The first eight bytes of every framed object: lets each opener check what the memory holds.
class QOR_API ipcObjectHeader {
public:
    ipcObjectHeader() {}  // leaves both words alone: they are stored last, by InitHeader()

    /// Marks the object as constructed; the last statement of its constructor.
    /// @param nVersion the type number, not 0
    /// @return 1.
    BOOL InitHeader(int nSize, int nVersion);

    /// Checks what is stored. @return 1 when both values are the expected ones. Others are a fatal assertion
    /// that names both.
    BOOL AssertHeader(const char* lpszName, int nSize, int nVersion) const;

    /// Whether InitHeader() has been completed.
    bool IsInit() const {
        return QOR_ChainHelper::loadShareWord(m_nObjectSize) != 0 &&
               QOR_ChainHelper::loadShareWord(m_nObjectVersion) != 0;
    }

    /// Makes nSize bytes that begin with a header all zero, the type number first.
    static void ClearObject(void* pData, int nSize);

protected:
    int32_t m_nObjectSize;     ///< the size the memory was created with
    int32_t m_nObjectVersion;  ///< the type number

    friend struct ipcObjectHeaderLayout;
};

/// The layout that all processes share.
struct ipcObjectHeaderLayout {
    static_assert(sizeof(ipcObjectHeader) == 8, "two words");
    static_assert(offsetof(ipcObjectHeader, m_nObjectSize) == 0, "size first");
    static_assert(offsetof(ipcObjectHeader, m_nObjectVersion) == 4, "type number second");
};

/// A shared object `T` with its memory and its mutex; the frame is that mutex.
///
/// Opened and closed by one thread; once open, all threads of the process may use it under its lock. The
/// library never removes a framed object.
///
/// From before the lock is taken until after it is released, the calling thread is not cancelled, whatever other
/// segments it locks meanwhile: a cancelled thread would leave a change half-made, and the lock taken while its process
/// lives. The lock is not recursive. A thread that waits for a lock that it holds already is ended at once by a fatal
/// assertion that names it ("[%s] is held by the calling thread already", the key file); Lock(0) only answers 0.
/// A thread that has locked a segment of the library must not call functions that take the same lock: with the share
/// segment locked, those that look for threads, post or send; with the named blocks locked (`nameHelperLock()`), every
/// tick, time-out and trace line; with the registry locked, every function of the registry.
///
/// All this holds where the mutex is `chMutex`; another one is locked as it is.
template <class T, class MapFile = chMapFile, class Mutex = chMutex>
class ipcObjectFrame : public Mutex {
public:
    ipcObjectFrame() = default;

    /// CloseShareObject().
    ~ipcObjectFrame() { CloseShareObject(); }

    /// Waits until the lock is free and takes it.
    /// @return 1; 0 with a warning on time-out or when the lock was removed from the device. Fatal when not open, when
    ///         the calling thread holds it already and the time-out is not 0, and when it holds the locks of 16
    ///         segments.
    BOOL Lock(int nTimeout) {
        if constexpr (guardsSegment)
            return Mutex::LockSegment(nTimeout, Mutex::tellAll);
        else
            return Mutex::Lock(nTimeout);
    }

    /// Lock() that keeps its time-out however often signals interrupt it, and that passes without a warning.
    BOOL LockFor(int nTimeout) {
        if constexpr (guardsSegment)
            return Mutex::LockSegment(nTimeout, Mutex::tellRemoval);
        else
            return Mutex::Lock(nTimeout);
    }

    /// Releases the lock; only warns when it is not locked. Fatal: another thread holds it.
    void Unlock() {
        if constexpr (guardsSegment)
            Mutex::UnlockSegment();
        else
            Mutex::Unlock();
    }

    /// Opens the mutex and the memory of that name, and constructs the object unless another process has.
    /// @param nSize bytes to map, the object included; -1 takes the length of the file that the map file is over
    /// @return 1, or 0 when the mutex or the memory cannot be opened. Fatal when already open, and when the object is
    ///         larger than the memory ("nSize >= (int)sizeof(T)").
    BOOL OpenShareObject(const char* lpszName, int nSize) {
        if (!QOR_ASSERT_IN("_chBaseClass", m_pIPCObject == nullptr, "m_pIPCObject == NULL"))
            return FALSE;
        if (!assertSize(nSize == -1 || nSize >= static_cast<int>(sizeof(T))))
            return FALSE;
        const chCancelGuard guard;
        if (!Mutex::OpenMutex(lpszName))
            return FALSE;
        BOOL bOpen = FALSE;
        if (Lock(-1)) {
            bOpen = OpenMapFileObject(lpszName, nSize);
            Unlock();
        }
        if (!bOpen)
            Mutex::CloseMutex();
        if constexpr (std::is_same<MapFile, chMapFile>::value)
            if (bOpen && m_mapFile.IsCreateByMe())
                m_mapFile.WarnOfTwin();
        return bOpen;
    }

    /// The object, in this process's mapping. Fatal when not open.
    T* getObject() const {
        if (!QOR_ASSERT_IN("_chBaseClass", m_pIPCObject != nullptr, "m_pIPCObject != NULL"))
            return nullptr;
        return m_pIPCObject;
    }

    /// Closes the memory and the mutex; the object stays. Harmless when closed.
    void CloseShareObject() {
        if (m_pIPCObject == nullptr)
            return;
        const BOOL bLocked = Lock(-1);
        m_mapFile.CloseMapFile();
        m_pIPCObject = nullptr;
        if (bLocked)
            Unlock();
        Mutex::CloseMutex();
    }

protected:
    /// The part of OpenShareObject() that needs the mutex locked.
    BOOL OpenMapFileObject(const char* lpszName, int nSize) {
        void* pData = m_mapFile.OpenMapFile(lpszName, nSize);
        if (pData == nullptr) {
            QOR_TraceHelper::qorErrorMessage(0, "_chBaseClass", __LINE__, "m_pIPCObject != NULL");
            m_mapFile.CloseMapFile();
            return FALSE;
        }
        // A file of its own length may be too short.
        if (!assertSize(QOR_ChainHelper::findShareRange(pData).holds(pData, sizeof(T)))) {
            m_mapFile.CloseMapFile();
            return FALSE;
        }
        if constexpr (guardsSegment && !std::is_same<MapFile, chMapFile_Local>::value) {
            if (!m_mapFile.OpenJournal(this->m_fdSemaphore)) {
                m_mapFile.CloseMapFile();
                return FALSE;
            }
        }
        m_pIPCObject = static_cast<T*>(pData);
        if (m_mapFile.IsCreateByMe()) {
            new (pData) T;
            m_mapFile.Flush();
        } else if (!static_cast<ipcObjectHeader*>(pData)->IsInit()) {
            // Its creator died before it was done; the kernel has released its mutex.
            ipcObjectHeader::ClearObject(pData, nSize == -1 ? static_cast<int>(sizeof(T)) : nSize);
            new (pData) T;
            m_mapFile.Flush();
        }
        return TRUE;
    }

    MapFile m_mapFile;
    T* m_pIPCObject = nullptr;

private:
    static constexpr bool guardsSegment = std::is_same<Mutex, chMutex>::value;

    static bool assertSize(bool bFits) { return QOR_ASSERT_IN("_chBaseClass", bFits, "nSize >= (int)sizeof(T)"); }
};

/// The process-wide lock of the base classes.
class QOR_API uCMoudleHelper : public chCriticalSection {
public:
    /// Fatal ("pData == NULL") when the process has its lock already.
    uCMoudleHelper();
};

/// The process's one uCMoudleHelper, made on first use; any thread may call it.
QOR_API uCMoudleHelper* uCMoudleHelpergetGlobalObject();

}  // namespace QOR_BaseHelper

#endif
