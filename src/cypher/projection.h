// Projection: a read query's bindings turned into result rows, along the
// plain or the aggregating path, then ordered, made distinct and cut by SKIP
// and LIMIT. Stateless; safe to call from any thread with an adapter that
// allows it.
#pragma once

#include <span>
#include <vector>

#include "cypher/graph_adapter.h"
#include "cypher/statement.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher {

/// The result rows of `query`. Column names are the keys of each row, in
/// column order; a result of no rows carries none. Throws BadRequestError (or
/// whatever the adapter throws) with the first failure; no partial rows.
std::vector<Row> executeQuery(const Query& query, const GraphAdapter& graph);

/// The ORDER BY order of two rows' key lists (one scalar per order item, a
/// missing key counting as null): negative when `a` sorts first, zero when
/// the rows tie, positive when `b` sorts first.
int compareRowKeys(std::span<const ScalarValue> a, std::span<const ScalarValue> b, std::span<const OrderItem> orderBy);

}  // namespace glimmerstrand::cypher
