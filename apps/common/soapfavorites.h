// How a favorites SOAP request names its items: the host's reading of an
// updateFavorites envelope, on top of the platform's generic SOAP parameters.
#pragma once

#include <vector>

#include "qz/platform/soap.h"

namespace kiv::host {

// The top-level favorite items of an updateFavorites request: the
// operation's children named "favoriteItem", in order; when it has none of
// them, the children (of any name) of its first child named "favoriteItems"
// (a SOAP-encoded array wrapper). References are returned as they are: their
// children are the target's.
std::vector<SoapParameter*> favoriteItemsOf(SoapRequest& request);

}  // namespace kiv::host
