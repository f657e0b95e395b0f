// The launcher: starts the processes of the demo device, kills one of them, watches all, and ends them.
#ifndef EXAMPLES_DEVICE_LAUNCHER_H
#define EXAMPLES_DEVICE_LAUNCHER_H

namespace device {

// Runs the demo, or cleans up, as the arguments say. Returns the exit status: 0 when all went well.
int deviceMain(int nCount, char** lpszArguments);

// Removes and lists the System V objects and key files that the library left on the machine; the counters' file in the
// home directory only when asked to. Returns 1, and removes nothing, while a process uses one of them.
int clean(bool bStorageToo);

}  // namespace device

#endif
