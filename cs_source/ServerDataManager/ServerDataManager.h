// Everything a server needs to embed the data manager: the library's public
// headers and the contracts of the server libraries it is written against.
#ifndef SDM_SERVERDATAMANAGER_H
#define SDM_SERVERDATAMANAGER_H

#include "RefCountPtr.h"
#include "clientchannel.h"
#include "datasource.h"
#include "messages.h"
#include "platform.h"
#include "serialization.h"
#include "threads.h"

#include "ObserverView.h"
#include "bootstrapspecs.h"
#include "clientcopy.h"
#include "errormonitor.h"
#include "failures.h"
#include "handles.h"
#include "registry.h"
#include "svrdmitem.h"

#endif  // SDM_SERVERDATAMANAGER_H
