#ifndef VELANET_SOCKETSWRITERSTATUS_P_H
#define VELANET_SOCKETSWRITERSTATUS_P_H

// The writer's one rule on its status that no public call can reach: nothing
// in the library sets KWriteRefuse or above, so the rule is kept here, where
// its test can call it, rather than behind a setter.

#include "src/SocketsWriter.h"

namespace velanet {

// Whether IssueWriteL queues data while the writer is in status: busy and
// idle take it, KWriteRefuse and every status above refuse it.
[[nodiscard]] constexpr bool WriterTakesData(int status)
{
    return status < CSocketsWriter::KWriteRefuse;
}

}  // namespace velanet

#endif
