// Delegate: the common base of every object that receives the library's callbacks.
//
// Each optional callback is one small interface that derives virtually from Delegate;
// an application class inherits the interfaces of the callbacks it wants, and nothing
// else. "Does this delegate implement manager_didChangedState?" is then an exact
// dynamic_cast, used for counting, for "responds to", and for delivery:
//
//   class Screen : public qlt::ManagerDidChangedState,
//                  public qlt::PeripheralDidReceivedTCPData { ... };
//
// Delegates are held weakly by the objects they listen to, so they must be owned by a
// std::shared_ptr.
#pragma once

#include "QueltLibrary/Export.h"

namespace qlt {

class QLT_EXPORT Delegate {
 public:
  virtual ~Delegate() = default;
};

}  // namespace qlt
