// The identities of the ids the data store handed out (see identities.h).
// Kept apart from the models: they must outlive every model swap, which is
// the point of them.
#include "datastore/identities.h"

#include <cstdint>
#include <string>
#include <unordered_map>

#include "datastore/model.h"

namespace kelp::ds {
namespace {

constexpr size_t kNoPosition = SIZE_MAX;

struct Identity {
    int type = -1;
    bool hasNexus = false;
    std::string nexus;
    // What positionNamedBy answered for the model with serial `answeredIn`
    // (0: none), kNoPosition for no object. A model never changes, so the
    // answer holds for that model until the identity does.
    uint64_t answeredIn = 0;
    size_t answer = kNoPosition;
};

std::mutex g_identityMutex;
// Every id ever handed out, with what it named then; guarded by
// g_identityMutex. It grows only with ids that were handed out, so it is
// bounded by the objects of the models served.
std::unordered_map<uint32_t, Identity> g_handedOut;
// Answers positionNamedBy worked out, not taken from an identity's last
// one; guarded by g_identityMutex.
uint64_t g_workedOut = 0;

bool matches(const Identity &identity, const Model &m, size_t pos)
{
    const std::optional<std::string_view> nexus = m.nexusOf(pos);
    return identity.type == m.typeIndexOf(pos) && identity.hasNexus == nexus.has_value() &&
           (!nexus || identity.nexus == *nexus);
}

void assign(Identity *identity, const Model &m, size_t pos)
{
    const std::optional<std::string_view> nexus = m.nexusOf(pos);
    identity->type = m.typeIndexOf(pos);
    identity->hasNexus = nexus.has_value();
    if (nexus)
        identity->nexus = *nexus;
    else
        identity->nexus.clear();
    identity->answeredIn = 0;
}

// positionNamedBy's answer when the id was handed out as `named`.
std::optional<size_t> positionOf(const Identity &named, const Model &m, uint32_t id)
{
    g_workedOut++;
    const std::optional<size_t> pos = m.find(id);
    if (pos && matches(named, m, *pos))
        return pos;
    if (named.type < 0 || !named.hasNexus)
        return std::nullopt;
    return m.findByNexus(kObjectTypes[static_cast<size_t>(named.type)].name, named.nexus);
}

} // namespace

std::mutex &identityMutex()
{
    return g_identityMutex;
}

void rememberHandedOut(const Model &m, const std::vector<size_t> &positions)
{
    for (size_t pos : positions) {
        Identity &identity = g_handedOut[m.idOf(pos)];
        if (!matches(identity, m, pos))
            assign(&identity, m, pos);
    }
}

std::optional<size_t> positionNamedBy(const Model &m, uint32_t id)
{
    auto it = g_handedOut.find(id);
    if (it == g_handedOut.end())
        return m.find(id);
    Identity &named = it->second;
    if (named.answeredIn != m.serial()) {
        const std::optional<size_t> pos = positionOf(named, m, id);
        named.answeredIn = m.serial();
        named.answer = pos.value_or(kNoPosition);
    }
    if (named.answer == kNoPosition)
        return std::nullopt;
    return named.answer;
}

uint64_t namedPositionsWorkedOut()
{
    std::lock_guard lock(g_identityMutex);
    return g_workedOut;
}

void followIdentity(const Model &before, size_t posBefore, const Model &after, size_t posAfter)
{
    auto it = g_handedOut.find(before.idOf(posBefore));
    if (it != g_handedOut.end() && matches(it->second, before, posBefore))
        assign(&it->second, after, posAfter);
}

void forgetHandedOut()
{
    std::lock_guard lock(g_identityMutex);
    g_handedOut.clear();
}

} // namespace kelp::ds
