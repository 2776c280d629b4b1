// Umbrella header of libwebclient: includes every public header.
#pragma once

#include "webclient/ca_bundle.h"
#include "webclient/easy_web_client.h"
#include "webclient/exception.h"
#include "webclient/export.h"
#include "webclient/flat_api.h"
#include "webclient/host.h"
#include "webclient/popen3.h"
#include "webclient/webRequestcontroller.h"
#include "webclient/web_client.h"
#include "webclient/web_handle.h"
#include "webclient/web_request.h"
