#include "QueltLibrary/sim/AirFaults.h"

#include "QueltLibrary/Log.h"

namespace qlt::sim {

bool AirFaults::any() const {
  return lostWritesWithoutResponse > 0 || lostNotifications > 0 || connectionInterval > 0 ||
         dropAfterSeconds || dropAfterPackets || connectFailure > 0 || writeRateLimit;
}

std::string AirFaults::description() const {
  std::string text = formatString("seed=%llu", static_cast<unsigned long long>(seed));
  if (lostWritesWithoutResponse > 0)
    text += formatString(" lostWritesWithoutResponse=%f", lostWritesWithoutResponse);
  if (lostNotifications > 0) text += formatString(" lostNotifications=%f", lostNotifications);
  if (connectionInterval > 0) text += formatString(" connectionInterval=%f", connectionInterval);
  if (dropAfterSeconds) text += formatString(" dropAfterSeconds=%f", *dropAfterSeconds);
  if (dropAfterPackets)
    text +=
        formatString(" dropAfterPackets=%llu", static_cast<unsigned long long>(*dropAfterPackets));
  if (connectFailure > 0) text += formatString(" connectFailure=%f", connectFailure);
  if (writeRateLimit) text += formatString(" writeRateLimit=%f", *writeRateLimit);
  return text;
}

}  // namespace qlt::sim
