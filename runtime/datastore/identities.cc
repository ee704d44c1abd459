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
    const std::string *nexus = m.nexusOf(pos);
    return identity.type == m.typeIndexOf(pos) && identity.hasNexus == (nexus != nullptr) &&
           (nexus == nullptr || identity.nexus == *nexus);
}

void assign(Identity *identity, const Model &m, size_t pos)
{
    const std::string *nexus = m.nexusOf(pos);
    identity->type = m.typeIndexOf(pos);
    identity->hasNexus = nexus != nullptr;
    if (nexus != nullptr)
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
        Identity &identity = g_handedOut[m.object(pos).id];
        if (!matches(identity, m, pos))
            assign(&identity, m, pos);
    }
}

bool isAsHandedOut(const Model &m, size_t pos)
{
    auto it = g_handedOut.find(m.object(pos).id);
    return it == g_handedOut.end() || matches(it->second, m, pos);
}

void followIdentity(const Model &before, size_t posBefore, const Model &after, size_t posAfter)
{
    auto it = g_handedOut.find(before.object(posBefore).id);
    if (it != g_handedOut.end() && matches(it->second, before, posBefore))
        assign(&it->second, after, posAfter);
}

void forgetHandedOut()
{
    std::lock_guard lock(g_identityMutex);
    g_handedOut.clear();
}

} // namespace kelp::ds
