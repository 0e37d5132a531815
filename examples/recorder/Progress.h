// Progress while the recorder runs, and the table at its end.
#ifndef KTRECORDER_PROGRESS_H
#define KTRECORDER_PROGRESS_H

#include <KTBase/KTString.h>

#include "Status.h"

/// One line: how far it is, frames, key frames, bytes, fps, queue and drops of all cameras.
/// withBar: for a terminal; the bar runs towards the end of the recording, if it has one.
void AppendProgress(const RecorderStatus& status, bool withBar, CKTString& out);

/// A row for each camera, and what there is to say of those that were not recorded.
void AppendSummary(const RecorderStatus& status, CKTString& out);

#endif
