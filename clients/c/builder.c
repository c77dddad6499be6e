/* Makes the text of events of type, keys and values. */
#include "internal.h"

#include <errno.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

struct kivevent_builder {
    json_t* event;
    char* text;
    int has_real;
};

static kivevent_code make_event(const char* type, json_t** event) {
    kivevent_code code = kiv_check_text("event type", type);
    if (code != KIVEVENT_OK) return code;
    *event = json_object();
    if (*event == NULL || json_object_set_new(*event, "event-type", json_string(type)) != 0) {
        json_decref(*event);
        return kiv_fail_errno("event", ENOMEM);
    }
    return KIVEVENT_OK;
}

kivevent_code kivevent_builder_reset(kivevent_builder* builder, const char* type) {
    json_t* event = NULL;
    kivevent_code code;
    if (builder == NULL) return kiv_fail(KIVEVENT_INVALID, "no builder");
    code = make_event(type, &event);
    if (code != KIVEVENT_OK) return code;
    json_decref(builder->event);
    builder->event = event;
    builder->has_real = 0;
    return KIVEVENT_OK;
}

kivevent_code kivevent_builder_open(const char* type, kivevent_builder** builder) {
    kivevent_builder* made;
    kivevent_code code;
    if (builder == NULL) return kiv_fail(KIVEVENT_INVALID, "no place for the builder");
    *builder = NULL;
    made = calloc(1, sizeof *made);
    if (made == NULL) return kiv_fail_errno("builder", ENOMEM);
    code = kivevent_builder_reset(made, type);
    if (code == KIVEVENT_OK)
        *builder = made;
    else
        free(made);
    return code;
}

void kivevent_builder_close(kivevent_builder* builder) {
    if (builder == NULL) return;
    json_decref(builder->event);
    free(builder->text);
    free(builder);
}

static kivevent_code check_place(const kivevent_builder* builder, const char* key) {
    if (builder == NULL) return kiv_fail(KIVEVENT_INVALID, "no builder");
    return kiv_check_text("key", key);
}

/* Takes the value over, NULL included. */
static kivevent_code put(kivevent_builder* builder, const char* key, json_t* value) {
    json_t* data = json_object_get(builder->event, "data");
    if (value != NULL && data == NULL) {
        data = json_object();
        if (json_object_set_new(builder->event, "data", data) != 0) data = NULL;
    }
    if (value == NULL || data == NULL) {
        json_decref(value);
        return kiv_fail_errno(key, ENOMEM);
    }
    return json_object_set_new(data, key, value) == 0 ? KIVEVENT_OK : kiv_fail_errno(key, ENOMEM);
}

kivevent_code kivevent_add_text(kivevent_builder* builder, const char* key, const char* value) {
    kivevent_code code = check_place(builder, key);
    if (code == KIVEVENT_OK) code = kiv_check_text(key, value);
    return code == KIVEVENT_OK ? put(builder, key, json_string(value)) : code;
}

kivevent_code kivevent_add_integer(kivevent_builder* builder, const char* key, int64_t value) {
    const kivevent_code code = check_place(builder, key);
    return code == KIVEVENT_OK ? put(builder, key, json_integer(value)) : code;
}

kivevent_code kivevent_add_number(kivevent_builder* builder, const char* key, double value) {
    const kivevent_code code = check_place(builder, key);
    if (code != KIVEVENT_OK) return code;
    if (!isfinite(value)) return kiv_fail(KIVEVENT_INVALID, "%s: not a finite number", key);
    builder->has_real = 1;
    return put(builder, key, json_real(value));
}

kivevent_code kivevent_add_boolean(kivevent_builder* builder, const char* key, int value) {
    const kivevent_code code = check_place(builder, key);
    return code == KIVEVENT_OK ? put(builder, key, json_boolean(value)) : code;
}

kivevent_code kivevent_add_json(kivevent_builder* builder, const char* key, const char* json) {
    json_t* value;
    kivevent_code code = check_place(builder, key);
    if (code != KIVEVENT_OK) return code;
    if (json == NULL) return kiv_fail(KIVEVENT_INVALID, "%s: none", key);
    value = kiv_parse(json, strlen(json), &code);
    if (value == NULL) return code;
    if (kiv_has_quote(value)) {
        json_decref(value);
        return kiv_fail(KIVEVENT_QUOTE, "%s: single quote, which kivApp cannot store", key);
    }
    builder->has_real = 1; /* there may be one in it */
    return put(builder, key, value);
}

kivevent_code kivevent_set_kernel_time(kivevent_builder* builder, int64_t ms) {
    if (builder == NULL || ms < 0)
        return kiv_fail(KIVEVENT_INVALID, "no builder, or a kernel time below 0");
    if (json_object_set_new(builder->event, "kernel-time", json_integer(ms)) == 0)
        return KIVEVENT_OK;
    return kiv_fail_errno("kernel-time", ENOMEM);
}

/* 15 digits keep 0.1 as it was given, 17 keep every double. */
static char* dump(const kivevent_builder* builder) {
    size_t digits;
    for (digits = builder->has_real ? 15 : 17; digits < 17; ++digits) {
        char* const text = json_dumps(builder->event, JSON_COMPACT | JSON_REAL_PRECISION(digits));
        json_t* const again = text == NULL ? NULL : json_loads(text, 0, NULL);
        const int same = json_equal(builder->event, again);
        json_decref(again);
        if (same) return text;
        free(text);
    }
    return json_dumps(builder->event, JSON_COMPACT | JSON_REAL_PRECISION(17));
}

const char* kivevent_builder_text(kivevent_builder* builder) {
    if (builder == NULL) {
        kiv_fail(KIVEVENT_INVALID, "no builder");
        return NULL;
    }
    free(builder->text);
    builder->text = dump(builder);
    if (builder->text == NULL) kiv_fail_errno("event", ENOMEM);
    return builder->text;
}
