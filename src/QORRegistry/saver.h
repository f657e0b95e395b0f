// Saving a document: what a flush asks of the saver, or does itself.
#ifndef QOR_REGISTRY_SAVER_H
#define QOR_REGISTRY_SAVER_H

#include "internal/registry.h"

namespace QOR_RegistryHelper {

// The saver's task, with one more request counted for the document. 0: there is no saver, or it has left too many
// requests for the document unanswered.
int reserveSaver(const registryHold& hold, regDocument& document);

// Posts the request to the task that reserveSaver() returned. False: there is no such task, and if it still stood in
// the store as the saver, it no longer does. Takes the registry's lock.
bool askSaver(int idSaver, const regDocument& document);

// Writes a document's counted keys to its file. 1: the file is up to date; 0: it could not be written, and the keys
// stay counted. Takes the save lock, then the registry's.
BOOL saveDocument(regDocument& document);

}  // namespace QOR_RegistryHelper

#endif
