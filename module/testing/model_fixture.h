// Test helpers for code that reads the data store: models written inline and
// served by the runtime's real data store, and the table lists emptied
// around each test.
#ifndef KELP_MODULE_TESTING_MODEL_FIXTURE_H
#define KELP_MODULE_TESTING_MODEL_FIXTURE_H

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "datastore/model_store.h"
#include "store/build.h"
#include "store/tablelist.h"

namespace testmodel {

using Attrs = std::initializer_list<std::pair<const char *, std::string>>;

// One <object> element; parent 0 means none.
inline std::string object(uint32_t id, const char *type, uint32_t parent, Attrs attributes)
{
    std::string text = "<object id=\"" + std::to_string(id) + "\" type=\"" + type + "\"";
    if (parent != 0) {
        text += " parent=\"" + std::to_string(parent) + "\"";
    }
    text += ">";
    for (const auto &[name, value] : attributes) {
        text += std::string("<") + name + ">" + value + "</" + name + ">";
    }
    return text + "</object>";
}

inline std::string link(uint32_t a, uint32_t b)
{
    return "<link a=\"" + std::to_string(a) + "\" b=\"" + std::to_string(b) + "\"/>";
}

// Serves a model made of `items`; fails the test when it does not validate.
inline void serve(const std::string &items, bool ready = true)
{
    const std::string text =
        std::string("<storage ready=\"") + (ready ? "1" : "0") + "\">" + items + "</storage>";
    std::string error;
    ASSERT_TRUE(kelp::ds::loadModelText(text, "test-model", &error)) << error;
}

// Serves the shipped sample model (data/models/sample.xml under
// KELP_SOURCE_DIR, which ctest sets) and builds every table from it.
inline void serveSampleModel()
{
    const char *source = std::getenv("KELP_SOURCE_DIR");
    ASSERT_NE(source, nullptr) << "ctest sets KELP_SOURCE_DIR";
    std::string error;
    ASSERT_TRUE(kelp::ds::loadModelFile(std::string(source) + "/data/models/sample.xml", &error))
        << error;
    ASSERT_EQ(buildAll(), 0);
}

} // namespace testmodel

// Empty lists and no model before and after each test.
class ModelTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        freeAllLists();
        kelp::ds::unloadModel();
    }
    void TearDown() override
    {
        freeAllLists();
        kelp::ds::unloadModel();
    }
};

#endif // KELP_MODULE_TESTING_MODEL_FIXTURE_H
