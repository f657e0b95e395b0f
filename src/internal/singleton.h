// The only object of a class in a process, created on first use, which may happen in several threads at once.
//
// Its accessor is one line:
//
//     uCMoudleHelper* uCMoudleHelpergetGlobalObject() {
//         return processSingleton<uCMoudleHelper>::get("_chBaseClass");
//     }
//
// and its constructor asserts that it is the only one:
//
//     QOR_ASSERT_TEXT(processSingleton<uCMoudleHelper>::pData() == NULL, "pData == NULL");
//
// Invariants:
// - The object has static storage and is never destroyed: threads may use it while the process exits. A class with
//   clean-up at exit has `void AtExit()`, which is called when main returns. Other threads may be running then, so it
//   must leave the object usable.
// - In the child of a fork() only the forking thread continues. A class with locks of its own has `void fork_reset()`,
//   which releases them there. An object that another thread was creating is created again.
#ifndef QOR_INTERNAL_SINGLETON_H
#define QOR_INTERNAL_SINGLETON_H

#include <errno.h>
#include <stdlib.h>

#include <atomic>
#include <new>

#include "qor/BaseHelper/Sync.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper/Report.h"
#include "xInc/platform.h"

namespace QOR_BaseHelper {

template <class T>
class processSingleton {
public:
    // The object; the first caller creates it while others wait. lpszModule is the module name for reports.
    static T* get(const char* lpszModule) {
        T* pObject = s_pObject.load(std::memory_order_acquire);
        return __builtin_expect(pObject != nullptr, 1) ? pObject : makeOrWait(lpszModule);
    }

    // The object, or null if it has not been created.
    static T* pData() { return s_pObject.load(std::memory_order_acquire); }

private:
    static T* makeOrWait(const char* lpszModule) {
        const int idTask = static_cast<int>(QOR_MiscHelper::qorGetCurrentTaskId());
        bool bWarned = false;
        for (;;) {
            if (T* pObject = pData())
                return pObject;
            int idMaker = 0;
            if (s_idMaker.compare_exchange_strong(idMaker, idTask, std::memory_order_acq_rel))
                return make();
            if (!QOR_ASSERT_IN(lpszModule, idMaker != idTask, "globle object constructting !"))
                return nullptr;
            // In the child of a fork() the creator may be a thread of the parent, which never finishes here.
            if (!QOR_Platform::isTaskOfThisProcess(idMaker) &&
                s_idMaker.compare_exchange_strong(idMaker, idTask, std::memory_order_acq_rel))
                return make();
            if (!bWarned)
                QOR_WARN_IN(lpszModule, pData() != nullptr, "globle object constructting !");
            bWarned = true;
            QOR_MiscHelper::qorSwitchToThread();
        }
    }

    // Called only by the task in s_idMaker, which keeps its value afterwards. If the task were cancelled in between, no
    // other could create the object while it lives. Keeps errno: the caller may be a trace line that prints it.
    static T* make() {
        const chCancelGuard guard;
        const int nError = errno;
        if (!s_bHooked.exchange(true)) {
            QOR_Platform::callAtFork(&beforeFork, nullptr, &inChild);
            atexit(&atEnd);
        }
        T* pObject = pData();
        if (pObject == nullptr) {
            pObject = new (&s_arrStorage) T;
            s_pObject.store(pObject, std::memory_order_release);
        }
        errno = nError;
        return pObject;
    }

    static void beforeFork() { t_idForker = static_cast<int>(QOR_MiscHelper::qorGetCurrentTaskId()); }

    static void inChild() {
        if (T* pObject = pData())
            callForkReset(pObject, 0);
        else if (s_idMaker.load(std::memory_order_relaxed) == t_idForker)
            s_idMaker.store(static_cast<int>(QOR_MiscHelper::qorGetCurrentTaskId()), std::memory_order_relaxed);
        else
            s_idMaker.store(0, std::memory_order_relaxed);
    }

    static void atEnd() {
        if (T* pObject = pData())
            callAtExit(pObject, 0);
    }

    template <class U>
    static auto callForkReset(U* pObject, int) -> decltype(pObject->fork_reset(), void()) {
        pObject->fork_reset();
    }
    template <class U>
    static void callForkReset(U*, long) {}

    template <class U>
    static auto callAtExit(U* pObject, int) -> decltype(pObject->AtExit(), void()) {
        pObject->AtExit();
    }
    template <class U>
    static void callAtExit(U*, long) {}

    static inline std::atomic<T*> s_pObject{nullptr};
    static inline std::atomic<int> s_idMaker{0};  // the task that creates or has created it; 0: none
    static inline std::atomic<bool> s_bHooked{false};
    static inline thread_local int t_idForker = 0;
    alignas(T) static inline unsigned char s_arrStorage[sizeof(T)];
};

}  // namespace QOR_BaseHelper

#endif
