#include "standard_codes.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace
{

// Codes that groups of functions share, as the standard lists them for each.
const std::vector<CK_RV> ANY = {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED, CKR_FUNCTION_FAILED, CKR_GENERAL_ERROR,
                                CKR_HOST_MEMORY};
const std::vector<CK_RV> DEVICE = {CKR_DEVICE_ERROR, CKR_DEVICE_MEMORY, CKR_DEVICE_REMOVED};
const std::vector<CK_RV> SESSION = {CKR_SESSION_CLOSED, CKR_SESSION_HANDLE_INVALID};
const std::vector<CK_RV> WORK = {CKR_ARGUMENTS_BAD, CKR_FUNCTION_CANCELED};
const std::vector<CK_RV> TOKEN = {CKR_SLOT_ID_INVALID, CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED};
const std::vector<CK_RV> INIT = {CKR_MECHANISM_INVALID, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE,
                                 CKR_PIN_EXPIRED, CKR_USER_NOT_LOGGED_IN};
const std::vector<CK_RV> KEY = {CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_KEY_HANDLE_INVALID, CKR_KEY_SIZE_RANGE,
                                CKR_KEY_TYPE_INCONSISTENT};
const std::vector<CK_RV> UNDERWAY = {CKR_OPERATION_NOT_INITIALIZED};
/// An operation is done whole or in parts: who changes from one to the other ends it.
const std::vector<CK_RV> WHOLE_OR_PARTS = {CKR_OPERATION_ACTIVE};
const std::vector<CK_RV> VALUES = {
    CKR_ATTRIBUTE_READ_ONLY, CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_VALUE_INVALID, CKR_TEMPLATE_INCONSISTENT,
    CKR_SESSION_READ_ONLY,   CKR_TOKEN_WRITE_PROTECTED,  CKR_USER_NOT_LOGGED_IN,      CKR_PIN_EXPIRED};
/// Hosts ask for the PIN when they hear it: the front says so of every object that wants a login.
const std::vector<CK_RV> LOGIN = {CKR_USER_NOT_LOGGED_IN};
/// Of the version after 2.20: what an object's CKA_MODIFIABLE and the like forbid.
const std::vector<CK_RV> FORBIDDEN = {0x1B};
const std::vector<CK_RV> NOT_THERE = {CKR_FUNCTION_NOT_SUPPORTED};
const std::vector<CK_RV> NOT_PARALLEL = {CKR_FUNCTION_NOT_PARALLEL, CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED};

struct Row {
    const char* function;
    std::vector<const std::vector<CK_RV>*> groups;
    std::vector<CK_RV> others;
};

// clang-format off
const Row ROWS[] = {
    {"C_Initialize",          {}, {CKR_ARGUMENTS_BAD, CKR_CANT_LOCK, CKR_CRYPTOKI_ALREADY_INITIALIZED, CKR_NEED_TO_CREATE_THREADS}},
    {"C_Finalize",            {}, {CKR_ARGUMENTS_BAD}},
    {"C_GetInfo",             {}, {CKR_ARGUMENTS_BAD}},
    {"C_GetFunctionList",     {}, {CKR_ARGUMENTS_BAD}},
    {"C_GetSlotList",         {}, {CKR_ARGUMENTS_BAD, CKR_BUFFER_TOO_SMALL}},
    {"C_GetSlotInfo",         {}, {CKR_ARGUMENTS_BAD, CKR_DEVICE_ERROR, CKR_SLOT_ID_INVALID}},
    {"C_GetTokenInfo",        {&DEVICE, &TOKEN}, {CKR_ARGUMENTS_BAD}},
    {"C_GetMechanismList",    {&DEVICE, &TOKEN}, {CKR_ARGUMENTS_BAD, CKR_BUFFER_TOO_SMALL}},
    {"C_GetMechanismInfo",    {&DEVICE, &TOKEN}, {CKR_ARGUMENTS_BAD, CKR_MECHANISM_INVALID}},
    {"C_InitToken",           {&NOT_THERE}, {}},
    {"C_InitPIN",             {&NOT_THERE}, {}},
    {"C_SetPIN",              {&DEVICE, &SESSION, &WORK, &NOT_THERE}, {CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE, CKR_PIN_LOCKED, CKR_SESSION_READ_ONLY, CKR_TOKEN_WRITE_PROTECTED}},
    {"C_OpenSession",         {&DEVICE, &TOKEN}, {CKR_ARGUMENTS_BAD, CKR_SESSION_COUNT, CKR_SESSION_PARALLEL_NOT_SUPPORTED, CKR_SESSION_READ_WRITE_SO_EXISTS, CKR_TOKEN_WRITE_PROTECTED}},
    {"C_CloseSession",        {&DEVICE, &SESSION}, {}},
    {"C_CloseAllSessions",    {&DEVICE}, {CKR_SLOT_ID_INVALID, CKR_TOKEN_NOT_PRESENT}},
    {"C_GetSessionInfo",      {&DEVICE, &SESSION}, {CKR_ARGUMENTS_BAD}},
    {"C_GetOperationState",   {&NOT_THERE}, {}},
    {"C_SetOperationState",   {&NOT_THERE}, {}},
    {"C_Login",               {&DEVICE, &SESSION, &WORK, &UNDERWAY}, {CKR_PIN_INCORRECT, CKR_PIN_LOCKED, CKR_SESSION_READ_ONLY_EXISTS, CKR_USER_ALREADY_LOGGED_IN, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKR_USER_PIN_NOT_INITIALIZED, CKR_USER_TOO_MANY_TYPES, CKR_USER_TYPE_INVALID}},
    {"C_Logout",              {&DEVICE, &SESSION}, {CKR_USER_NOT_LOGGED_IN}},
    {"C_CreateObject",        {&DEVICE, &SESSION, &WORK, &VALUES}, {CKR_DOMAIN_PARAMS_INVALID, CKR_TEMPLATE_INCOMPLETE}},
    {"C_CopyObject",          {&DEVICE, &SESSION, &WORK, &VALUES, &FORBIDDEN}, {CKR_OBJECT_HANDLE_INVALID}},
    {"C_DestroyObject",       {&DEVICE, &SESSION, &FORBIDDEN, &LOGIN}, {CKR_OBJECT_HANDLE_INVALID, CKR_PIN_EXPIRED, CKR_SESSION_READ_ONLY, CKR_TOKEN_WRITE_PROTECTED}},
    {"C_GetObjectSize",       {&DEVICE, &SESSION, &WORK, &LOGIN}, {CKR_INFORMATION_SENSITIVE, CKR_OBJECT_HANDLE_INVALID}},
    {"C_GetAttributeValue",   {&DEVICE, &SESSION, &WORK, &LOGIN}, {CKR_ATTRIBUTE_SENSITIVE, CKR_ATTRIBUTE_TYPE_INVALID, CKR_BUFFER_TOO_SMALL, CKR_OBJECT_HANDLE_INVALID}},
    {"C_SetAttributeValue",   {&DEVICE, &SESSION, &WORK, &VALUES, &FORBIDDEN}, {CKR_OBJECT_HANDLE_INVALID}},
    {"C_FindObjectsInit",     {&DEVICE, &SESSION, &WORK}, {CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_VALUE_INVALID, CKR_OPERATION_ACTIVE, CKR_PIN_EXPIRED}},
    {"C_FindObjects",         {&DEVICE, &SESSION, &WORK, &UNDERWAY}, {}},
    {"C_FindObjectsFinal",    {&DEVICE, &SESSION, &UNDERWAY}, {}},
    {"C_EncryptInit",         {&DEVICE, &SESSION, &WORK, &INIT, &KEY}, {}},
    {"C_Encrypt",             {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL, CKR_DATA_INVALID, CKR_DATA_LEN_RANGE}},
    {"C_EncryptUpdate",       {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL, CKR_DATA_LEN_RANGE}},
    {"C_EncryptFinal",        {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL, CKR_DATA_LEN_RANGE}},
    {"C_DecryptInit",         {&DEVICE, &SESSION, &WORK, &INIT, &KEY}, {}},
    {"C_Decrypt",             {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL, CKR_ENCRYPTED_DATA_INVALID, CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_USER_NOT_LOGGED_IN}},
    {"C_DecryptUpdate",       {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL, CKR_ENCRYPTED_DATA_INVALID, CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_USER_NOT_LOGGED_IN}},
    {"C_DecryptFinal",        {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL, CKR_ENCRYPTED_DATA_INVALID, CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_USER_NOT_LOGGED_IN}},
    {"C_DigestInit",          {&DEVICE, &SESSION, &WORK, &INIT}, {}},
    {"C_Digest",              {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL}},
    {"C_DigestUpdate",        {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {}},
    {"C_DigestKey",           {&NOT_THERE}, {}},
    {"C_DigestFinal",         {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL}},
    {"C_SignInit",            {&DEVICE, &SESSION, &WORK, &INIT, &KEY}, {}},
    {"C_Sign",                {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL, CKR_DATA_INVALID, CKR_DATA_LEN_RANGE, CKR_FUNCTION_REJECTED, CKR_USER_NOT_LOGGED_IN}},
    {"C_SignUpdate",          {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_DATA_LEN_RANGE, CKR_USER_NOT_LOGGED_IN}},
    {"C_SignFinal",           {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_BUFFER_TOO_SMALL, CKR_DATA_LEN_RANGE, CKR_FUNCTION_REJECTED, CKR_USER_NOT_LOGGED_IN}},
    {"C_SignRecoverInit",     {&NOT_THERE}, {}},
    {"C_SignRecover",         {&NOT_THERE}, {}},
    {"C_VerifyInit",          {&DEVICE, &SESSION, &WORK, &INIT, &KEY}, {}},
    {"C_Verify",              {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE, CKR_SIGNATURE_INVALID, CKR_SIGNATURE_LEN_RANGE}},
    {"C_VerifyUpdate",        {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_DATA_LEN_RANGE}},
    {"C_VerifyFinal",         {&DEVICE, &SESSION, &WORK, &UNDERWAY, &WHOLE_OR_PARTS}, {CKR_DATA_LEN_RANGE, CKR_SIGNATURE_INVALID, CKR_SIGNATURE_LEN_RANGE}},
    {"C_VerifyRecoverInit",   {&NOT_THERE}, {}},
    {"C_VerifyRecover",       {&NOT_THERE}, {}},
    {"C_DigestEncryptUpdate", {&NOT_THERE}, {}},
    {"C_DecryptDigestUpdate", {&NOT_THERE}, {}},
    {"C_SignEncryptUpdate",   {&NOT_THERE}, {}},
    {"C_DecryptVerifyUpdate", {&NOT_THERE}, {}},
    {"C_GenerateKey",         {&NOT_THERE}, {}},
    // The device has few sizes, which the front says where the standard has no better word.
    {"C_GenerateKeyPair",     {&DEVICE, &SESSION, &WORK, &INIT, &VALUES}, {CKR_DOMAIN_PARAMS_INVALID, CKR_TEMPLATE_INCOMPLETE, CKR_KEY_SIZE_RANGE}},
    {"C_WrapKey",             {&NOT_THERE}, {}},
    {"C_UnwrapKey",           {&NOT_THERE}, {}},
    {"C_DeriveKey",           {&DEVICE, &SESSION, &WORK, &INIT, &VALUES}, {CKR_DOMAIN_PARAMS_INVALID, CKR_KEY_HANDLE_INVALID, CKR_KEY_SIZE_RANGE, CKR_KEY_TYPE_INCONSISTENT, CKR_TEMPLATE_INCOMPLETE}},
    {"C_SeedRandom",          {&DEVICE, &SESSION, &WORK}, {CKR_OPERATION_ACTIVE, CKR_RANDOM_SEED_NOT_SUPPORTED, CKR_RANDOM_NO_RNG, CKR_USER_NOT_LOGGED_IN}},
    {"C_GenerateRandom",      {&DEVICE, &SESSION, &WORK}, {CKR_OPERATION_ACTIVE, CKR_RANDOM_NO_RNG, CKR_USER_NOT_LOGGED_IN}},
    {"C_GetFunctionStatus",   {&NOT_PARALLEL}, {}},
    {"C_CancelFunction",      {&NOT_PARALLEL}, {}},
    {"C_WaitForSlotEvent",    {}, {CKR_ARGUMENTS_BAD, CKR_NO_EVENT}},
};
// clang-format on

bool contains(const std::vector<CK_RV>& codes, CK_RV code)
{
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

bool isAllowed(const Row& row, CK_RV code)
{
    return contains(ANY, code) || contains(row.others, code) ||
           std::any_of(row.groups.begin(), row.groups.end(), [&](const auto* group) { return contains(*group, code); });
}

} // namespace

bool hasStandardCode(std::string_view function, CK_RV code)
{
    const Row* row =
        std::find_if(std::begin(ROWS), std::end(ROWS), [&](const Row& each) { return each.function == function; });
    return row != std::end(ROWS) && isAllowed(*row, code);
}
