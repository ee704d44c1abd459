#include "snmp_walker.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>

namespace kelp::stress {

namespace {

Name nameOf(const netsnmp_variable_list *var)
{
    return Name(var->name, var->name + var->name_length);
}

// The type and the bytes of a value: integers are a long, counter64 its
// two halves, strings and names their bytes, so equal keys are equal
// values.
std::string valueKey(const netsnmp_variable_list *var)
{
    std::string key(1, static_cast<char>(var->type));
    if (var->val.string != nullptr) {
        key.append(reinterpret_cast<const char *>(var->val.string), var->val_len);
    }
    return key;
}

bool pastTree(const Name &root, const Name &name)
{
    const size_t common = std::min(root.size(), name.size());
    return !std::equal(root.begin(), root.begin() + static_cast<long>(common), name.begin()) &&
           root < name;
}

bool inTree(const Name &root, const Name &name)
{
    return name.size() > root.size() && std::equal(root.begin(), root.end(), name.begin());
}

// Sends `request` and waits for its answer: nullptr with *why on a
// time-out or a send failure.
netsnmp_pdu *exchange(void *session, netsnmp_pdu *request, std::string *why)
{
    netsnmp_pdu *response = nullptr;
    const int status = snmp_sess_synch_response(session, request, &response);
    if (status != STAT_SUCCESS || response == nullptr) {
        *why = status == STAT_TIMEOUT ? "no answer in time" : "the request failed";
        if (response != nullptr) {
            snmp_free_pdu(response);
        }
        return nullptr;
    }
    return response;
}

} // namespace

Walker::Walker(const std::string &peer, const std::string &community, int timeoutMs)
    : peer_(peer), community_(community)
{
    netsnmp_session settings;
    snmp_sess_init(&settings);
    settings.peername = peer_.data();
    settings.version = SNMP_VERSION_2c;
    settings.community = reinterpret_cast<u_char *>(community_.data());
    settings.community_len = community_.size();
    settings.timeout = timeoutMs * 1000L;
    settings.retries = 0;
    session_ = snmp_sess_open(&settings);
}

Walker::~Walker()
{
    if (session_ != nullptr) {
        snmp_sess_close(session_);
    }
}

WalkEnd Walker::walk(const Name &root, int repetitions, std::vector<Binding> *bindings,
                     std::string *why)
{
    std::vector<oid> cursor(root.begin(), root.end());
    for (;;) {
        netsnmp_pdu *request = snmp_pdu_create(SNMP_MSG_GETBULK);
        request->non_repeaters = 0;
        request->max_repetitions = repetitions;
        snmp_add_null_var(request, cursor.data(), cursor.size());
        netsnmp_pdu *response = exchange(session_, request, why);
        if (response == nullptr) {
            return WalkEnd::kOther;
        }
        WalkEnd end = WalkEnd::kOther;
        bool more = false;
        if (response->errstat == SNMP_ERR_GENERR) {
            end = WalkEnd::kLockTimeOut;
        } else if (response->errstat != SNMP_ERR_NOERROR) {
            *why = "error status " + std::to_string(response->errstat);
        } else if (response->variables == nullptr) {
            *why = "an answer without bindings";
        } else {
            more = true;
            for (const netsnmp_variable_list *var = response->variables; var != nullptr;
                 var = var->next_variable) {
                const Name name = nameOf(var);
                if (var->type == SNMP_ENDOFMIBVIEW || pastTree(root, name)) {
                    end = WalkEnd::kPastTree;
                    more = false;
                    break;
                }
                bindings->push_back({name, valueKey(var)});
                // A name that does not increase would walk for ever; the
                // checker reports it (and one outside the tree before it).
                if (!inTree(root, name) || !(Name(cursor.begin(), cursor.end()) < name)) {
                    *why = "the walk went back";
                    more = false;
                    break;
                }
                cursor.assign(name.begin(), name.end());
            }
        }
        snmp_free_pdu(response);
        if (!more) {
            return end;
        }
    }
}

GetEnd Walker::get(const std::vector<Name> &names, std::vector<Binding> *found,
                   std::vector<Name> *absent, std::string *why)
{
    netsnmp_pdu *request = snmp_pdu_create(SNMP_MSG_GET);
    for (const Name &name : names) {
        const std::vector<oid> arcs(name.begin(), name.end());
        snmp_add_null_var(request, arcs.data(), arcs.size());
    }
    netsnmp_pdu *response = exchange(session_, request, why);
    if (response == nullptr) {
        return GetEnd::kOther;
    }
    GetEnd end = GetEnd::kAnswered;
    if (response->errstat == SNMP_ERR_GENERR) {
        end = GetEnd::kLockTimeOut;
    } else if (response->errstat != SNMP_ERR_NOERROR) {
        *why = "error status " + std::to_string(response->errstat);
        end = GetEnd::kOther;
    } else {
        size_t count = 0;
        for (const netsnmp_variable_list *var = response->variables; var != nullptr;
             var = var->next_variable, count++) {
            if (count >= names.size() || nameOf(var) != names[count]) {
                *why = "an answer for a name not asked for";
                end = GetEnd::kOther;
                break;
            }
            if (var->type == SNMP_NOSUCHOBJECT || var->type == SNMP_NOSUCHINSTANCE) {
                absent->push_back(nameOf(var));
            } else {
                found->push_back({nameOf(var), valueKey(var)});
            }
        }
        if (end == GetEnd::kAnswered && count != names.size()) {
            *why = "an answer with " + std::to_string(count) + " of " +
                   std::to_string(names.size()) + " bindings";
            end = GetEnd::kOther;
        }
    }
    snmp_free_pdu(response);
    return end;
}

} // namespace kelp::stress
