#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "dispatcher/device_state.h"
#include "journal/Journal.h"
#include "rules/document.h"

namespace fiscorad::http {

/// Documents and the device as tills see them. All texts become UTF-8; what is not known yet is absent.

nlohmann::json representationOf(const Document& document);
nlohmann::json representationOf(const DeviceState& device, std::size_t queueLength,
                                const std::vector<Alarm>& alarms);

nlohmann::json representationOf(const LastCall& call);

/// The fields of an answer to `operation` by their names.
nlohmann::json namedFields(const manipulaDados::Operation& operation, std::string_view answer);
/// Six digits.
std::string sessionText(int session);

/// Where a document is found: "/v1/vendas/KEY", or under "/v1/cancelamentos".
std::string pathTo(const Document& document);

}  // namespace fiscorad::http
