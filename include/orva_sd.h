/*
 * orva_sd: a typed, block-structured store of recorded simulation data.
 *
 * The flat interface, usable from C and C++.
 *
 * Conventions, once for all calls:
 * - Files, elements and types are named by handles of type `long`. A handle
 *   is the object's address; a predefined type's handle is its kind number
 *   0..13 (SDT_CHAR8 .. SDT_FLOAT64). -1 is "no object"; 0 is never a valid
 *   file or element handle.
 * - Values, sequences and iterators cross the interface as opaque pointers.
 *   Whatever a create/get call hands out belongs to the caller until the
 *   matching close call (sdd_value_close, sdd_sequence_close,
 *   sdd_value_iter_close, sdd_sequence_iter_close). Pointers documented as
 *   borrowed must not be closed.
 * - Failure is the return value alone: -1 for int status and handles, null
 *   for pointers and texts, 0 for counts and sizes, false for bool. There is
 *   no error code. Every failure path calls sd_breakpoint(), which a
 *   debugger or a program defining its own sd_breakpoint can intercept.
 * - Arguments are trusted beyond what each call documents as checked.
 * - Nothing here is thread-safe on one file: a caller serialises its use of
 *   a file and its iterators. Close iterators before the file.
 */
#ifndef ORVA_SD_H
#define ORVA_SD_H

#include <stddef.h>
#include <wchar.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
/* Called on every failure path; exported with C++ linkage so that a program
 * defining its own sd_breakpoint() intercepts each call. */
void sd_breakpoint();
#endif

/* Element kinds; the numbers are part of the file format. The store gives
 * them no meaning and keeps any int (the file keeps its low byte). */
#ifdef __cplusplus
enum sde_tag_kind : int {
#else
enum sde_tag_kind {
#endif
    SDE_SENSOR = 0,
    SDE_INPUT = 1,
    SDE_OUTPUT = 2,
    SDE_WIRE = 3,
    SDE_LOCAL = 4,
    SDE_PROBE = 5,
    SDE_GROUP_ITEM = 6,
    SDE_ASSUME = 7,
    SDE_GUARANTEE = 8,
    SDE_SIGNAL = 9,
    SDE_OPERATOR = 10,
    SDE_INSTANCE = 11,
    SDE_AUTOMATON = 12,
    SDE_STATE = 13,
    SDE_FORK = 14,
    SDE_TRANSITION = 15,
    SDE_IF_BLOCK = 16,
    SDE_WHEN_BLOCK = 17,
    SDE_BRANCH = 18,
    SDE_ASSERT = 19
};
typedef enum sde_tag_kind sde_tag_kind;

/* Handles of the fourteen predefined types. */
enum {
    SDT_CHAR8 = 0,
    SDT_CHAR16 = 1,
    SDT_CHAR32 = 2,
    SDT_BOOL = 3,
    SDT_INT8 = 4,
    SDT_INT16 = 5,
    SDT_INT32 = 6,
    SDT_INT64 = 7,
    SDT_UINT8 = 8,
    SDT_UINT16 = 9,
    SDT_UINT32 = 10,
    SDT_UINT64 = 11,
    SDT_FLOAT32 = 12,
    SDT_FLOAT64 = 13
};

/* Type classes (sdt_get_class). */
enum {
    SDT_CLASS_PREDEFINED = 0,
    SDT_CLASS_STRUCT = 1,
    SDT_CLASS_ARRAY = 2,
    SDT_CLASS_ENUM = 3,
    SDT_CLASS_VARIANT = 4,
    SDT_CLASS_IMPORTED = 5
};

/* Value classes (sdd_value_get_class). */
enum {
    SDD_VALUE_NONE = 0,
    SDD_VALUE_PREDEFINED = 1,
    SDD_VALUE_LIST = 2,
    SDD_VALUE_ENUM = 3,
    SDD_VALUE_VARIANT = 4,
    SDD_VALUE_UNTYPED_CONSTRUCTOR = 5,
    SDD_VALUE_IMPORTED = 6
};

/* Sequence classes (sdd_sequence_get_class). */
enum {
    SDD_SEQUENCE_NONE = 1,
    SDD_SEQUENCE_VALUES = 2
};

/* Opaque objects. */
typedef struct sdd_value sdd_value;
typedef struct sdd_sequence sdd_sequence;
typedef struct sdd_value_iter sdd_value_iter;
typedef struct sdd_sequence_iter sdd_sequence_iter;

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Files ------------------------------------------------------------ */

/* Create (or empty) the file at path; open an existing one read-write. */
long sdf_create(char const* path);
long sdf_wcreate(wchar_t const* path);
long sdf_open(char const* path);
long sdf_wopen(wchar_t const* path);
/* Flushes pending samples and closes; the handle is dead either way. */
int sdf_close(long file);
bool sdf_is_valid_id(long file);
/* "major.minor" of the file's version; empty for a file just created. */
char const* sdf_get_format_version(long file);
/* Prints the whole file on standard output. */
int sdf_dump(long file);
/* Writes every element's pending samples as data blocks and flushes the
 * stream, so that a process killed afterwards loses nothing appended before
 * the call. 0, or -1 when the file is unknown or a write failed. */
int sdf_flush(long file);
/* Makes appends to this file flush by themselves (as sdf_flush) once
 * `milliseconds` have passed since the last flush. 0, the default, flushes
 * an element only when its pending samples reach about 1 MiB. 0, or -1 for an
 * unknown file. */
int sdf_set_flush_interval(long file, unsigned long milliseconds);

/* ---- Elements ----------------------------------------------------------- */
/* A parent is a file handle (for root elements) or an element handle. */

long sde_create(long parent, char const* name, long type, sde_tag_kind kind);
long sde_find_child(long parent, char const* name);
unsigned long sde_get_n_children(long parent);
long sde_get_child(long parent, unsigned long index);
/* children must have room for sde_get_n_children(parent) handles. */
int sde_get_children(long parent, long* children);
bool sde_is_valid_id(long element);
char const* sde_get_name(long element);
long sde_get_type(long element);
int sde_get_kind(long element);
int sde_set_name(long element, char const* name);
int sde_set_kind(long element, sde_tag_kind kind);
int sde_set_type(long element, long type);
/* Remove children first: a removed parent makes the file unopenable. */
int sde_remove(long element);
/* "a/b/c": the element at that path; a path with projections gives -1. */
long sde_find(long file, char const* path);
/* "a/b.x[2]": the element, the part's type handle and byte offset; tail
 * points at the projections in path, or is null. */
long sde_find_part(long file, char const* path, char const** tail, long* type,
                   unsigned long* offset);

/* ---- Types -------------------------------------------------------------- */
/* Sizes and offsets of (unsigned long)-1 are worked out by the library. */

long sdt_struct_create(unsigned long size);
long sdt_variant_create(unsigned long size);
long sdt_imported_create(unsigned long size);
long sdt_vsize_imported_create(unsigned long size, unsigned long long (*size_of)(void const*),
                               void (*write_to)(void const*, unsigned char*));
long sdt_enum_create(long base_type);
long sdt_array_create(long base_type, unsigned long n_dims, unsigned long const* dims);
/* Ends the registry's share of a created type; never fails. */
int sdt_close(long type);

int sdt_set_name(long type, char const* name);
int sdt_struct_add_field(long type, char const* name, unsigned long offset, long field_type);
int sdt_enum_add_value(long type, char const* name, void const* value);
int sdt_variant_add_constructor(long type, char const* name, unsigned long tag_offset,
                                int tag_value, unsigned long value_offset, long value_type);

int sdt_get_class(long type);
unsigned long sdt_get_size(long type);
char const* sdt_get_name(long type);
unsigned long sdt_get_n_all_types(long file);
int sdt_get_all_types(long file, long* types);

long sdt_array_get_base_type(long type);
unsigned long sdt_array_get_n_dims(long type);
int sdt_array_get_dims(long type, unsigned long* dims);
long sdt_enum_get_base_type(long type);
unsigned long sdt_enum_get_n_values(long type);
unsigned long sdt_struct_get_n_fields(long type);
unsigned long sdt_variant_get_n_constructors(long type);
bool sdt_imported_is_variable_size(long type);

char const* sdt_struct_get_field_name(long type, unsigned long index);
unsigned long sdt_struct_get_field_offset(long type, unsigned long index);
long sdt_struct_get_field_type(long type, unsigned long index);
char const* sdt_enum_get_value_name(long type, unsigned long index);
int sdt_enum_get_value_value(long type, unsigned long index, void* value);
char const* sdt_variant_get_constructor_name(long type, unsigned long index);
unsigned long sdt_variant_get_constructor_tag_offset(long type, unsigned long index);
int sdt_variant_get_constructor_tag_value(long type, unsigned long index);
unsigned long sdt_variant_get_constructor_value_offset(long type, unsigned long index);
long sdt_variant_get_constructor_value_type(long type, unsigned long index);

/* ---- Values ------------------------------------------------------------- */

sdd_value* sdd_value_create_none(void);
sdd_value* sdd_value_create_predef_char8(unsigned long v);
sdd_value* sdd_value_create_predef_char16(unsigned long v);
sdd_value* sdd_value_create_predef_char32(unsigned long v);
sdd_value* sdd_value_create_predef_bool(unsigned long v);
sdd_value* sdd_value_create_predef_uint8(unsigned long v);
sdd_value* sdd_value_create_predef_uint16(unsigned long v);
sdd_value* sdd_value_create_predef_uint32(unsigned long v);
sdd_value* sdd_value_create_predef_uint64(unsigned long v);
sdd_value* sdd_value_create_predef_int8(long v);
sdd_value* sdd_value_create_predef_int16(long v);
sdd_value* sdd_value_create_predef_int32(long v);
sdd_value* sdd_value_create_predef_int64(long v);
sdd_value* sdd_value_create_predef_float32(float v);
sdd_value* sdd_value_create_predef_float64(double v);
/* Takes ownership of every value in the array. */
sdd_value* sdd_value_create_list(unsigned long count, sdd_value** values);
sdd_value* sdd_value_create_enum(char const* name);
/* Does NOT take ownership of value: close it yourself after the variant. */
sdd_value* sdd_value_create_variant(char const* name, sdd_value* value);
sdd_value* sdd_value_create_imported(unsigned long size, void const* bytes);
void sdd_value_close(sdd_value* value);

int sdd_value_get_class(sdd_value* value);
long sdd_value_get_predef_type_id(sdd_value* value);
/* Writes the scalar in its own kind's width (see sdd_value_get_predef_type_id). */
int sdd_value_get_predef_raw(sdd_value* value, void* out);
/* Plain forwarders to sdd_value_get_predef_raw: they write the value's own
 * width, whatever their name says. */
int sdd_value_get_predef_uint8(sdd_value* value, void* out);
int sdd_value_get_predef_uint16(sdd_value* value, void* out);
int sdd_value_get_predef_uint32(sdd_value* value, void* out);
int sdd_value_get_predef_uint64(sdd_value* value, void* out);
int sdd_value_get_predef_int8(sdd_value* value, void* out);
int sdd_value_get_predef_int16(sdd_value* value, void* out);
int sdd_value_get_predef_int32(sdd_value* value, void* out);
int sdd_value_get_predef_int64(sdd_value* value, void* out);
int sdd_value_get_predef_float32(sdd_value* value, void* out);
int sdd_value_get_predef_float64(sdd_value* value, void* out);
char const* sdd_value_get_enum_name(sdd_value* value);
/* Borrowed scalar of a decoded enum; null when there is none. */
sdd_value* sdd_value_get_enum_value(sdd_value* value);
unsigned long sdd_value_get_list_n_values(sdd_value* value);
/* Borrowed child. */
sdd_value* sdd_value_get_list_value_at(sdd_value* value, unsigned long index);
char const* sdd_value_get_variant_name(sdd_value* value);
sdd_value* sdd_value_get_variant_value(sdd_value* value);
unsigned long sdd_value_get_imported_size(sdd_value* value);
int sdd_value_get_imported_value(sdd_value* value, void* out);

/* ---- Streams ------------------------------------------------------------ */

/* raw is one value in the element type's memory layout; null appends an
 * absent value. */
int sdd_append_raw_value(long element, void const* raw);
/* Appends `count` samples whose raw images lie back to back in `data` (one
 * element type size apart). is_none may be null; where it is not, a non-zero
 * is_none[i] makes sample i absent (its bytes in data are ignored). The file
 * ends up exactly as after `count` calls of sdd_append_raw_value. 0, or -1
 * as sdd_append_raw_value fails; a failure may leave some samples appended. */
int sdd_append_raw_values(long element, unsigned long count, void const* data,
                          unsigned char const* is_none);
int sdd_append_value(long element, sdd_value* value);
/* Appends a copy; the caller keeps sequence. */
int sdd_append_sequence(long element, sdd_sequence* sequence);

/* type: the caller's memory type, converted to from the stored type; -1 for
 * the element's own type. */
sdd_value_iter* sdd_value_iter_create(long element, long type);
/* An iterator over one part of each value ("a/b.x[2]"); null on failure. */
sdd_value_iter* sdd_value_iter_create_part(long file, char const* path, long mem_type);
long sdd_value_iter_get_file_type(sdd_value_iter* iter);
long sdd_value_iter_get_mem_type(sdd_value_iter* iter);
int sdd_value_iter_seek(sdd_value_iter* iter, unsigned long count);
/* Puts the iterator at sample `index` of its element, forward or backward:
 * the same result as sdd_value_iter_restart followed by
 * sdd_value_iter_seek(iter, index). -1 with a null iterator or an index
 * beyond the series. */
int sdd_value_iter_seek_to(sdd_value_iter* iter, unsigned long index);
int sdd_value_iter_get_raw_value(sdd_value_iter* iter, void* dst, unsigned char* is_none,
                                 unsigned char* is_end);
unsigned long sdd_value_iter_get_raw_values(sdd_value_iter* iter, unsigned long count, void* dst,
                                            unsigned char* is_none);
sdd_value* sdd_value_iter_get_value(sdd_value_iter* iter);
/* A null iterator gives 0 here, unlike every other call of the family. */
int sdd_value_iter_set_raw_value(sdd_value_iter* iter, void const* raw);
int sdd_value_iter_set_value(sdd_value_iter* iter, sdd_value* value);
int sdd_value_iter_clear_values(sdd_value_iter* iter);
int sdd_value_iter_restart(sdd_value_iter* iter);
void sdd_value_iter_close(sdd_value_iter* iter);

sdd_sequence_iter* sdd_sequence_iter_create(long element);
int sdd_sequence_iter_seek(sdd_sequence_iter* iter, unsigned long count);
sdd_sequence* sdd_sequence_iter_get_sequence(sdd_sequence_iter* iter);
void sdd_sequence_iter_close(sdd_sequence_iter* iter);

sdd_sequence* sdd_sequence_create_nones(unsigned long count);
sdd_sequence* sdd_sequence_create_values(long type, unsigned long count, sdd_value** values,
                                         unsigned long repeat_factor);
/* Ramps are not implemented: always null. */
sdd_sequence* sdd_sequence_create_ramp(long type, unsigned long count, sdd_value* first,
                                       sdd_value* last);
void sdd_sequence_close(sdd_sequence* sequence);
int sdd_sequence_get_class(sdd_sequence* sequence);
unsigned long sdd_sequence_get_count(sdd_sequence* sequence);
unsigned long sdd_sequence_get_repeat_factor(sdd_sequence* sequence);
/* Always null. */
sdd_value* sdd_sequence_get_ramp_first(sdd_sequence* sequence);
sdd_value* sdd_sequence_get_ramp_last(sdd_sequence* sequence);
/* values must have room for sdd_sequence_get_count(sequence) entries; the
 * caller owns the values it receives. */
int sdd_sequence_get_values_values(sdd_sequence* sequence, sdd_value** values);

#ifdef __cplusplus
}
#endif

#endif /* ORVA_SD_H */
