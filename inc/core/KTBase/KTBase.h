// Every public header of the library.
#ifndef KTBASE_KTBASE_H
#define KTBASE_KTBASE_H

#include "KTBase/KTAsync.h"
#include "KTBase/KTDebug.h"
#include "KTBase/KTDefs.h"
#include "KTBase/KTDigest.h"
#include "KTBase/KTFile.h"
#include "KTBase/KTH26X.h"
#include "KTBase/KTList.h"
#include "KTBase/KTListT.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTMedia.h"
#include "KTBase/KTMemPool.h"
#include "KTBase/KTMessage.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTPacket.h"
#include "KTBase/KTSignal.h"
#include "KTBase/KTSocket.h"
#include "KTBase/KTSpacePool.h"
#include "KTBase/KTSsl.h"
#include "KTBase/KTState.h"
#include "KTBase/KTString.h"
#include "KTBase/KTThread.h"
#include "KTBase/KTThreadPool.h"
#include "KTBase/KTTime.h"
#include "KTBase/KTTimer.h"
#include "KTBase/KTUrl.h"
#include "KTBase/KTZip.h"

#endif
