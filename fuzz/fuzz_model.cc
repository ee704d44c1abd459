// The model loader: a model file's text parsed, validated and served (what
// KELP_MODEL and `kelpctl load` read), then, when it is served, an object
// fragment added to it (`kelpctl add --xml`), the served model written back
// as text and that text loaded again; and the quick read of the model's
// text against parse-then-build. The input is the model's text, and after
// a line "@@add" the fragment.
#include <cstdint>
#include <string>
#include <string_view>

#include "datastore/model.h"
#include "datastore/model_store.h"
#include "datastore/model_writer.h"
#include "fuzz_common.h"
#include "platform/vscil.h"

namespace {

constexpr std::string_view kAdd = "\n@@add\n";

// Reads every answer of the served model once, as the plug-in does.
void readAnswers()
{
    std::shared_ptr<const kelp::ds::Model> model = kelp::ds::servedModel();
    if (model == nullptr) {
        return;
    }
    uint32_t status = 0;
    for (const kelp::ds::ObjectType &type : kelp::ds::kObjectTypes) {
        freeMem(GetObjectList(&status, std::string(type.name).c_str()));
    }
    for (size_t pos = 0; pos < model->size(); ++pos) {
        const uint32_t id = model->idOf(pos);
        freeMem(GetSingleObject(&status, 0, id));
        freeMem(GetAssociated(&status, "arraydisks", id));
        freeMem(GetAssociatedPhyDevCount(&status, "arraydisks", id));
    }
    freeMem(DataStoreReady(&status));
}

// The quick read takes a text only when parse-then-build serve it too, as
// the same model.
void checkQuickRead(const std::string &text)
{
    const std::shared_ptr<const kelp::ds::Model> quick = kelp::ds::readQuickly(text, "fuzz");
    if (quick == nullptr) {
        return;
    }
    kelp::ds::ModelData data;
    std::string error;
    if (!kelp::ds::parseModelText(text, "fuzz", &data, &error)) {
        fuzzcommon::fail("the quick read took a text parseModelText refuses: " + error);
    }
    const std::shared_ptr<const kelp::ds::Model> built = kelp::ds::Model::build(data, &error);
    if (built == nullptr) {
        fuzzcommon::fail("the quick read took a text Model::build refuses: " + error);
    }
    FUZZ_CHECK(kelp::ds::modelText(*quick) == kelp::ds::modelText(*built));
    const kelp::ds::ModelData quickData = quick->data();
    FUZZ_CHECK(quickData.storageWhere.line == data.storageWhere.line);
    FUZZ_CHECK(quickData.objects.size() == data.objects.size());
    for (size_t i = 0; i < data.objects.size(); ++i) {
        FUZZ_CHECK(quickData.objects[i].where.line == data.objects[i].where.line);
    }
    FUZZ_CHECK(quickData.links.size() == data.links.size());
    for (size_t i = 0; i < data.links.size(); ++i) {
        FUZZ_CHECK(quickData.links[i].where.line == data.links[i].where.line);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t cut = input.find(kAdd);
    const std::string model(input.substr(0, cut));
    const std::string fragment(cut == std::string_view::npos ? std::string_view()
                                                             : input.substr(cut + kAdd.size()));
    checkQuickRead(model);
    std::string error;
    if (!kelp::ds::loadModelText(model, "fuzz", &error)) {
        FUZZ_CHECK(!error.empty());
        return 0;
    }
    readAnswers();
    if (!fragment.empty() && !kelp::ds::addObjects(fragment, &error)) {
        FUZZ_CHECK(!error.empty());
    }
    readAnswers();
    // What a save writes loads again, to the same text.
    // (No model is held across a load: a load waits for its holders.)
    const std::string saved = kelp::ds::modelText(*kelp::ds::servedModel());
    if (!kelp::ds::loadModelText(saved, "saved", &error)) {
        fuzzcommon::fail("a saved model does not load: " + error + "\n" + saved);
    }
    FUZZ_CHECK(kelp::ds::modelText(*kelp::ds::servedModel()) == saved);
    kelp::ds::unloadModel();
    return 0;
}
