#pragma once

#include "Host/Http/HttpRouter.h"

namespace loopstore::web {

// Adds the browser page to `router`: GET "/" (the page) and
// "/assets/{name}" (its scripts and style, hls.js among them), served from
// the files built into the program. Answers carry an entity tag and must be
// revalidated, so a new build's page is never mixed with an old cached
// script; a matching If-None-Match answers 304 without a body.
//
// Call before serving; the handlers keep no state.
void AddPageRoutes(host::HttpRouter& router);

}  // namespace loopstore::web
