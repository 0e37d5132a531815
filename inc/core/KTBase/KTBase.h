// Every public header of the library.
#ifndef KTBASE_KTBASE_H
#define KTBASE_KTBASE_H

#include "KTBase/KTDebug.h"
#include "KTBase/KTDefs.h"
#include "KTBase/KTDigest.h"
#include "KTBase/KTList.h"
#include "KTBase/KTListT.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTSignal.h"
#include "KTBase/KTSocket.h"
#include "KTBase/KTSsl.h"
#include "KTBase/KTState.h"
#include "KTBase/KTString.h"
#include "KTBase/KTTime.h"

#endif
