// The one object of a class that a process has, made on first use, by any number of threads at once.
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
// - The object lives in static storage and is never destructed: threads may still use it while the process
//   ends. A class that wants a last word has `void AtExit()`, which runs when main returns, beside running
//   threads, and must leave the object usable.
// - In the child of a fork only the forking thread goes on. A class with locks of its own has
//   `void fork_reset()`, which frees them there; an object that another thread was just making is made anew.
#ifndef QOR_INTERNAL_SINGLETON_H
#define QOR_INTERNAL_SINGLETON_H

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
    // The object; made by the first caller while the others wait. lpszModule names the module that reports.
    static T* get(const char* lpszModule) {
        T* pObject = s_pObject.load(std::memory_order_acquire);
        return __builtin_expect(pObject != nullptr, 1) ? pObject : makeOrWait(lpszModule);
    }

    // The object when it has been made, else null.
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
            // In the child of a fork the maker may be a thread of the parent, which will never finish here.
            if (!QOR_Platform::isTaskOfThisProcess(idMaker) &&
                s_idMaker.compare_exchange_strong(idMaker, idTask, std::memory_order_acq_rel))
                return make();
            if (!bWarned)
                QOR_WARN_IN(lpszModule, pData() != nullptr, "globle object constructting !");
            bWarned = true;
            QOR_MiscHelper::qorSwitchToThread();
        }
    }

    // Only ever entered by the task that s_idMaker names, which it keeps for good. Cancelled in the middle, it would
    // leave an object that nobody can make anew while the task lives.
    static T* make() {
        const chCancelGuard guard;
        if (!s_bHooked.exchange(true)) {
            QOR_Platform::callAtFork(&beforeFork, nullptr, &inChild);
            atexit(&atEnd);
        }
        T* pObject = pData();
        if (pObject == nullptr) {
            pObject = new (&s_arrStorage) T;
            s_pObject.store(pObject, std::memory_order_release);
        }
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
    static inline std::atomic<int> s_idMaker{0};  // the task that makes or has made it; 0: not made
    static inline std::atomic<bool> s_bHooked{false};
    static inline thread_local int t_idForker = 0;
    alignas(T) static inline unsigned char s_arrStorage[sizeof(T)];
};

}  // namespace QOR_BaseHelper

#endif
