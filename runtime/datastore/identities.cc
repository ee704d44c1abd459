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

struct Identity {
    int type = -1;
    bool hasNexus = false;
    std::string nexus;
};

std::mutex g_identityMutex;
// Every id ever handed out, with what it named then; guarded by
// g_identityMutex. It grows only with ids that were handed out, so it is
// bounded by the objects of the models served.
std::unordered_map<uint32_t, Identity> g_handedOut;

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
    const std::optional<size_t> pos = m.find(id);
    auto it = g_handedOut.find(id);
    if (it == g_handedOut.end() || (pos && matches(it->second, m, *pos)))
        return pos;
    const Identity &named = it->second;
    if (named.type < 0 || !named.hasNexus)
        return std::nullopt;
    return m.findByNexus(kObjectTypes[static_cast<size_t>(named.type)].name, named.nexus);
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
