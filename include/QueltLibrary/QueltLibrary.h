// QueltLibrary: Bluetooth LE devices with the Nordic UART Service, from one include.
//
//   auto manager = qlt::QLT_BLEManager::sharedInstance();
//   manager->addDelegate(myDelegate, myQueue);       // manager_didChangedState ...
//   manager->startDiscover(filter);                  // manager_didDiscoveredPeripheral
//   peripheral->addDelegate(myDelegate, myQueue);    // QLT_Peripheral_didChangeState ...
//   manager->connect(peripheral);                    // ... 1 2 5 6 8 (ready)
//   peripheral->writeTCPData(qlt::Data::fromString("hello"));
//
// See examples/ for a complete program.
#pragma once

#include "QueltLibrary/BLECharacteristic.h"
#include "QueltLibrary/BLEService.h"
#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/Delegate.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/Log.h"
#include "QueltLibrary/NUSService.h"
#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/QLT_Database.h"
#include "QueltLibrary/QLT_Object.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/QLT_UUID.h"
#include "QueltLibrary/QueltLibrary_vers.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "QueltLibrary/ThreadBase.h"
#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"
