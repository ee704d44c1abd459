// The 24 table getters and the one contract they keep, for the table
// registry. How a getter is written (its column rows and the shared cell
// machinery) is in tables/columns.h and tables/cells.h.
#ifndef KELP_MODULE_TABLES_GETTERS_H
#define KELP_MODULE_TABLES_GETTERS_H

#include <cstdint>

#include "platform/smsnmp.h"

extern "C" {

// Each getter answers one cell of its table into reply's value part:
// `position` is the index of the table's entry arc in request's name, the
// column is the arc after it and the row index the one after that (later
// arcs are ignored). Only request's name is read, and request and reply may
// be the same record (GetNext resolves each candidate so): a getter reads
// the name before it writes the value part.
//
// Results: 0 when reply's value part was filled (type 2 with the number, or
// type 4 with the text and its length); 2 when the row or column does not
// exist or could not be read, and the value part is then not meaningful (a
// column may have written its type or a number such as 99). A few columns
// answer success without writing a value: the host, which presets the
// reply's type to 0, reads that as no value for the cell. A display-name
// column answers the location-string service's status, and a column that
// cannot allocate its own buffer answers 5.
//
// Buffers: text columns copy at most 160 bytes (text and NUL) into
// reply->buffer, which the caller supplies (the host sizes it to 1024 bytes)
// and keeps its own reference to. A number leaves the pointer as it was,
// except after an integer read into the reply and in the columns that null
// it: the caller's buffer is never lost to a later cell. A getter that puts
// a buffer of its own into the reply (SMAllocMem, at least 1024 bytes) hands
// it to the caller, who frees it with SMFreeMem.
//
// A getter has no side effects beyond reply and the one-object cache
// (cachedObjXML, cachedObjId), so the caller may probe it again. Caller
// holds dataMutex.
int32_t getCtrl(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getChan(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getEncl(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getAD(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getADEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getADChanConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getFan(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getFanEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getPwrSupply(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getPwrEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getTemperature(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getTempEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getEMM(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getEMMEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getBattery(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getBatteryCtrlConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getTape(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getNVMEAdapter(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getVD(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getVDPartition(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getADLogConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getTidalCache(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getTidalCacheDisks(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);
int32_t getTidalCachePool(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);

} // extern "C"

#endif // KELP_MODULE_TABLES_GETTERS_H
