#pragma once

#include "crash/Shop.h"
#include "crash/told.h"
#include "service/ServiceProcess.h"

namespace crash {

/// Compares the device's ledger, the journal and what the tills were told, and looks at what else the shop
/// has left. Ends the service. Each difference is told to `counter`, which also counts documents, states and
/// faults.
void audit(const ShopSettings& settings, const Records& records, ServiceProcess& service, Counter& counter);

}  // namespace crash
