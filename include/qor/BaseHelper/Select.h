/// @file
/// Waiting on descriptors: a time-out in milliseconds and a set of at most 1024 descriptors.
///
/// @code
/// QOR_BaseHelper::chFD_SET set(fdSocket);
/// if (set.readSelect(500) > 0 && set.isSet(fdSocket)) {
///     // there is something to read
/// }
/// @endcode
#ifndef QOR_BASEHELPER_SELECT_H
#define QOR_BASEHELPER_SELECT_H

#include <sys/time.h>

#include "qor/Types.h"

namespace QOR_BaseHelper {

/// A time-out in the form that `select` takes. It refuses what negative milliseconds other than -1 become.
class QOR_API chTimeval : public timeval {
public:
    /// Takes milliseconds; see setTimeout().
    explicit chTimeval(int nTimeout) { setTimeout(nTimeout); }

    /// Takes milliseconds; -1 means the longest time-out, 2147483647 seconds.
    void setTimeout(int nTimeout);
};

/// A set of descriptors 0 to 1023, and the wait for one of them.
class QOR_API chFD_SET {
public:
    /// An empty set.
    chFD_SET() { clear(); }

    /// The set of that one descriptor.
    explicit chFD_SET(int fd) {
        clear();
        add(fd);
    }
    ~chFD_SET() { clear(); }

    /// Adds a descriptor. Fatal when it is negative or beyond 1023.
    void add(int fd);

    /// Empties the set.
    void clear();

    /// @return 1 when the descriptor is in the set, else 0.
    BOOL isSet(int fd) const;

    /// Waits until a descriptor of the set can be read, and leaves those that can in the set.
    /// @param nTimeout milliseconds; 0 only looks, -1 waits for ever, any other negative one is an error
    /// @return how many, 0 on time-out, -1 on error (errno), also when a signal interrupts the wait; then the set is
    ///         left as it was
    int readSelect(int nTimeout);

    /// Waits until a descriptor of the set can be written; as readSelect().
    int writeSelect(int nTimeout);

private:
    uint32_t m_arrBit[32];
    int32_t m_fdMax;  ///< the largest descriptor added, -1 when empty
};

}  // namespace QOR_BaseHelper

#endif
