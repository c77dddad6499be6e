/* Judges a text as the daemon would: by the same JSON library, with the same flags. */
#include "internal.h"

#include <string.h>

/* The daemon reads an event up to its first NUL, and takes no \u0000. */
static kivevent_code code_of(const json_error_t* error) {
    switch (json_error_code(error)) {
        case json_error_invalid_utf8:
            return KIVEVENT_NOT_UTF8;
        case json_error_null_character:
        case json_error_null_byte_in_key:
            return KIVEVENT_NUL;
        case json_error_out_of_memory:
            return KIVEVENT_NO_MEMORY;
        default:
            return KIVEVENT_NOT_JSON;
    }
}

json_t* kiv_parse(const char* json, size_t size, kivevent_code* code) {
    json_error_t error;
    const char* const nul = memchr(json, '\0', size);
    json_t* value;
    if (nul != NULL) {
        *code = kiv_fail(KIVEVENT_NUL, "NUL character (byte %lu)", (unsigned long)(nul - json));
        return NULL;
    }
    value = json_loadb(json, size, JSON_DECODE_ANY, &error);
    if (value != NULL) return value;
    *code = code_of(&error);
    if (*code == KIVEVENT_NUL)
        kiv_fail(*code, "NUL character (byte %d)", error.position);
    else
        kiv_fail(*code, "%s (byte %d)", error.text, error.position);
    return NULL;
}

int kiv_has_quote(const json_t* value) {
    if (json_is_string(value)) return strchr(json_string_value(value), '\'') != NULL;
    if (json_is_array(value)) {
        size_t index;
        const size_t size = json_array_size(value);
        for (index = 0; index < size; ++index) {
            if (kiv_has_quote(json_array_get(value, index))) return 1;
        }
    }
    if (json_is_object(value)) {
        /* jansson's iterators change nothing. */
        json_t* object = (json_t*)value;
        void* member = json_object_iter(object);
        for (; member != NULL; member = json_object_iter_next(object, member)) {
            if (strchr(json_object_iter_key(member), '\'') != NULL) return 1;
            if (kiv_has_quote(json_object_iter_value(member))) return 1;
        }
    }
    return 0;
}

/* An event with "oob-info" is not stored itself, and the table of files takes quotes. The
 * semaphore's name does not stay in the event. */
static int is_lost_by_quote(json_t* event) {
    const json_t* const info = json_object_get(json_object_get(event, "data"), "oob-info");
    json_object_del(event, "syncsem");
    return !json_is_object(info) && kiv_has_quote(event);
}

static kivevent_code check_value(json_t* event) {
    if (!json_is_object(event)) return kiv_fail(KIVEVENT_NOT_OBJECT, "not a JSON object");
    if (!json_is_string(json_object_get(event, "event-type")))
        return kiv_fail(KIVEVENT_NO_TYPE, "no \"event-type\" string");
    if (is_lost_by_quote(event))
        return kiv_fail(KIVEVENT_QUOTE, "single quote in the event: kivApp cannot store it");
    return KIVEVENT_OK;
}

kivevent_code kiv_check_event(const char* json, size_t size, size_t* end) {
    kivevent_code code = KIVEVENT_OK;
    json_t* event = kiv_parse(json, size, &code);
    if (event == NULL) return code;
    code = check_value(event);
    json_decref(event);
    while (size > 0 && json[size - 1] != '}') --size; /* only blanks follow an object */
    *end = size > 0 ? size - 1 : 0;
    return code;
}

kivevent_code kivevent_check(const char* json, size_t size) {
    size_t end;
    if (json == NULL) return kiv_fail(KIVEVENT_INVALID, "no text");
    return kiv_check_event(json, size, &end);
}

kivevent_code kiv_check_text(const char* what, const char* text) {
    json_t* value;
    if (text == NULL) return kiv_fail(KIVEVENT_INVALID, "%s: none", what);
    value = json_string(text);
    if (value == NULL) return kiv_fail(KIVEVENT_NOT_UTF8, "%s: not valid UTF-8", what);
    json_decref(value);
    if (strchr(text, '\'') != NULL)
        return kiv_fail(KIVEVENT_QUOTE, "%s: single quote, which kivApp cannot store", what);
    return KIVEVENT_OK;
}
