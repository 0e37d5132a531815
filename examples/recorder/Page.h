// The page: the recorder's status as HTML with SVG, and as JSON.
#ifndef KTRECORDER_PAGE_H
#define KTRECORDER_PAGE_H

#include <KTBase/KTString.h>

#include "Status.h"

/// The whole document. Its script asks for the live part each second; without script the browser
/// loads the document again every few seconds.
void AppendPage(const RecorderStatus& status, CKTString& out);

/// The part that changes: what stands in the document's main element.
void AppendLive(const RecorderStatus& status, CKTString& out);

/// The same figures. False when memory is out.
bool AppendJson(const RecorderStatus& status, CKTString& out);

#endif
