#include "core/cypher_result.h"

namespace glimmerstrand::core {
namespace {

JSONValue textList(const std::vector<std::string>& texts) {
  JSONValue::Array out;
  out.reserve(texts.size());
  for (const auto& t : texts) out.emplace_back(t);
  return out;
}

JSONValue actionJSON(const ActionRecord& a) {
  JSONValue::Object o{{"id", a.id}, {"action", a.action}, {"ok", a.ok}};
  putIf(o, "error", a.error);
  return o;
}

JSONValue imageJSON(const CypherImage& image) {
  return JSONValue::Object{{"format", image.format},
                           {"base64", image.base64},
                           {"width", image.width},
                           {"height", image.height},
                           {"region", toJSON(image.region)}};
}

}  // namespace

JSONValue statementJSON(const StatementResult& r) {
  JSONValue::Array rows, actions;
  rows.reserve(r.rows.size());
  for (const auto& row : r.rows) rows.push_back(jsonValue(row));
  for (const auto& a : r.actions) actions.push_back(actionJSON(a));
  JSONValue::Object o{{"kind", r.kind}, {"rows", std::move(rows)}};
  putIf(o, "total", r.total);
  put(o, "actions", std::move(actions));
  if (r.changes) put(o, "changes", textList(*r.changes));
  putIf(o, "timedOut", r.timedOut);
  putIf(o, "returns", r.returns);
  if (r.images) {
    JSONValue::Array images;
    for (const auto& image : *r.images) images.push_back(imageJSON(image));
    put(o, "images", std::move(images));
  }
  if (r.outline) put(o, "outline", textList(*r.outline));
  if (r.notes) put(o, "notes", textList(*r.notes));
  return o;
}

JSONValue resultJSON(const CypherResult& r) {
  JSONValue::Array results;
  results.reserve(r.results.size());
  for (const auto& s : r.results) results.push_back(statementJSON(*s));
  JSONValue::Object o{{"fresh", r.fresh},
                      {"app", r.app},
                      {"pid", r.pid},
                      {"generation", r.generation},
                      {"results", std::move(results)}};
  if (r.error) put(o, "error", JSONValue::Object{{"statement", r.error->statement}, {"message", r.error->message}});
  put(o, "elapsedMs", r.elapsedMs);
  return o;
}

}  // namespace glimmerstrand::core
