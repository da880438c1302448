// Recognition with PocketSphinx and its en-US model.
#pragma once

#include <string>

#include "engine.h"

namespace zel::speechd {

/** The language of the model. */
inline constexpr const char* kPocketSphinxLanguage = "en-US";

/** The folder of the installed model. */
std::string default_model_folder();

/** Makes engines from the model in `folder`, which holds en-us/, en-us.lm.bin and cmudict-en-us.dict. Making one takes
 * about a second and a hundred megabytes. Throws std::runtime_error when the model cannot be loaded. */
EngineFactory pocketsphinx_factory(std::string folder = default_model_folder());

}  // namespace zel::speechd
