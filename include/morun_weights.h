/* libmorun_weights: weight matrices from checkpoints into files that the DSP reads as they stand, and from such files
 * into the shared buffers of a context. Beside libmorun (tavik.h), and on top of it.
 *
 *   checkpoint  --packer-->  packed file  --load-->  shared buffers  -->  the products of tavik.h
 *                                |
 *                                +--unpack-->  f32
 *
 * A packed file is a safetensors file. Each packed matrix is one tensor of bytes, exactly what a shared buffer holds
 * for the products: tiles, then zero points, scales and sums of the columns. docs/weight-files.md draws it byte by
 * byte and defines the quantisers by formulas.
 *
 * A matrix W is n_inner x n_col, as in Y = X * W. Its forms:
 *
 *   f16    halves, tiles of f16 wh
 *   a8w8   i8 values, tiles of i8 wh; a zero point (i8), a scale (f16) and a sum (i32) for each column
 *   a8w4   i4 values, tiles of i4 wh; a zero point (i4), a scale (f16) and a sum (i32) for each column
 *
 * A packed matrix has whole tiles: both extents are rounded up to multiples of 32. The padding adds nothing to a
 * product whose activation is padded with zeros. Records give both, the true extents (n_inner, n_col) and the padded
 * ones.
 *
 * Statuses. Every function that returns int32_t returns one of the constants below; each function names those it can
 * return. A function that fails changes none of its outputs unless its comment says so, keeps nothing allocated, and
 * leaves a text for the calling thread (morun_weights_error_text). No C++ exception leaves the library.
 *
 * Threads. A handle (packer, calibration, file, loaded weights) is used by one thread at a time, except where a
 * function says otherwise; different handles are independent. The packer starts threads of its own and ends them
 * before it returns. Nothing else starts threads.
 *
 * Names and paths are NUL-terminated UTF-8; a tensor name with a NUL character in it is refused.
 *
 * Parameters and results that several functions share
 *   form                          a morun_weights_form
 *   n_inner, n_col                the true extents of the matrix
 *   layout                        receives the layout
 *   calibration                   the calibration; of create, receives it
 *   n_row                         rows of the activation
 *   activation                    values of the activation
 *   row_stride                    values from row to row
 *   damping                       what is added to the diagonal, in its mean; 0 to 1
 *   recipe                        how the matrix is packed
 *   inner_stride, column_stride   values from row to row of W, and from column to column
 *   first_column, n_column        the columns of the call
 *   values                        values of the matrix in f32
 *   packed, packed_size           the memory of the whole packed matrix, and its bytes
 *   statistics, other             figures of columns
 *   options                       the options; of init, receives the defaults
 *   packer                        the packer; of create, receives it
 *   path                          the file, or the source to add
 *   pattern                       a shell pattern
 *   index                         number of a tensor, decision or request, from 0; of find, receives it
 *   count                         receives the number
 *   decision                      receives what becomes of the tensor
 *   output                        the file to write
 *   file                          the packed file; of open, receives it
 *   tensor                        receives the record of the tensor
 *   name                          of the tensor
 *   offset, n_byte                the range to read, in bytes from the tensor's start
 *   bytes                         receives the bytes
 *   n_request, requests           the tensors to be loaded
 *   largest_buffer                bytes that no buffer exceeds
 *   n_free_buffer                 buffers that may be made
 *   plan, places                  receive the plan
 *   context                       of tavik_init
 *   loaded                        the weights; of load, receives them
 *   operand                       receives what the products take
 *   status                        a status of this header
 *   result                        one of the constants below: MORUN_WEIGHTS_SUCCESS, or one that the comment lists
 *                                 without its prefix
 *
 * Plain C11, also valid C++.
 */
#ifndef MORUN_WEIGHTS_H
#define MORUN_WEIGHTS_H

#include <stddef.h>
#include <stdint.h>

#include "tavik.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Statuses ---- */

enum {
  MORUN_WEIGHTS_SUCCESS = 0, /* the function did what it says */

  /* Of every function. */
  MORUN_WEIGHTS_NULL_ARGUMENT = 1, /* a pointer that must not be NULL is */
  MORUN_WEIGHTS_BAD_ARGUMENT = 2,  /* a number is outside the range that the function's comment gives */
  MORUN_WEIGHTS_NO_MEMORY = 3,     /* host memory could not be had */
  MORUN_WEIGHTS_UNEXPECTED = 4,    /* the C++ runtime reports a failure that no other status names */

  /* Files. The text carries the text of errno. */
  MORUN_WEIGHTS_OPEN = 10,   /* a file or directory cannot be opened or examined, or is not a regular file */
  MORUN_WEIGHTS_READ = 11,   /* reading fails; or another file has the name of a packer's source by now */
  MORUN_WEIGHTS_WRITE = 12,  /* the output cannot be created, written or renamed, a full disk included */
  MORUN_WEIGHTS_SHRUNK = 13, /* a file ends earlier than it did when it was opened */

  /* A file that is no valid safetensors file. */
  MORUN_WEIGHTS_TOO_SHORT = 20,       /* fewer than the 8 bytes of the header's length */
  MORUN_WEIGHTS_HEADER_TOO_LONG = 21, /* the header's length is above 100 000 000 bytes */
  MORUN_WEIGHTS_HEADER_CUT = 22,      /* the header's length reaches past the end of the file */
  MORUN_WEIGHTS_HEADER_START = 23,    /* the header is empty or does not begin with '{' */
  MORUN_WEIGHTS_HEADER_JSON = 24,     /* the header is not JSON in UTF-8, or not followed by blanks alone */
  MORUN_WEIGHTS_HEADER_DEPTH = 25,    /* values are nested deeper than the format has them */
  MORUN_WEIGHTS_HEADER_ENTRY = 26,    /* a tensor's entry is not made of dtype (string), shape (array of unsigned 64-bit
                                          integers) and data_offsets (two such integers), each once */
  MORUN_WEIGHTS_HEADER_METADATA = 27, /* __metadata__ is not an object of strings */
  MORUN_WEIGHTS_HEADER_NAME = 28,     /* a name is empty or holds a NUL character; also the name of a .npy file that is
                                         no UTF-8 or "__metadata__" */
  MORUN_WEIGHTS_DUPLICATE_NAME = 29,  /* two tensors, or two keys of __metadata__, have the same name; also the same
                                          name in two sources of a packer */
  MORUN_WEIGHTS_UNKNOWN_DTYPE = 30,   /* a dtype that the format does not have */
  MORUN_WEIGHTS_SHAPE_OVERFLOW = 31,  /* the bits that a shape takes do not fit 64 bits, or are no whole bytes */
  MORUN_WEIGHTS_SHAPE_MISMATCH = 32,  /* shape and dtype take another number of bytes than data_offsets span */
  MORUN_WEIGHTS_RANGE_REVERSED = 33,  /* data_offsets end before they begin */
  MORUN_WEIGHTS_RANGE_OUTSIDE = 34,   /* data_offsets end past the end of the file: the data are cut short */
  MORUN_WEIGHTS_RANGE_OVERLAP = 35,   /* a tensor begins inside another */
  MORUN_WEIGHTS_RANGE_GAP = 36,       /* bytes before or between tensors belong to none */
  MORUN_WEIGHTS_TRAILING_DATA = 37,   /* bytes behind the last tensor belong to none */

  /* A valid safetensors file that is no valid packed file. */
  MORUN_WEIGHTS_NOT_PACKED_FILE = 40,   /* __metadata__ has no morun.format */
  MORUN_WEIGHTS_UNKNOWN_VERSION = 41,   /* morun.format is not MORUN_WEIGHTS_FORMAT_VERSION */
  MORUN_WEIGHTS_RECORD_MISSING = 42,    /* a tensor has no record in __metadata__ */
  MORUN_WEIGHTS_RECORD_STRAY = 43,      /* a record belongs to no tensor */
  MORUN_WEIGHTS_RECORD_JSON = 44,       /* a record is not a flat JSON object, or names a member twice */
  MORUN_WEIGHTS_RECORD_MEMBER = 45,     /* a record lacks a member, or has one of a wrong type or out of range */
  MORUN_WEIGHTS_UNKNOWN_FORM = 46,      /* a record's form is none */
  MORUN_WEIGHTS_UNKNOWN_QUANTISER = 47, /* the quantiser in the record of a quantised matrix is none */
  MORUN_WEIGHTS_PACKED_DTYPE = 48,      /* a packed tensor is not a U8 tensor of one dimension */
  MORUN_WEIGHTS_EXTENTS = 49,           /* an extent is 0, or the matrix takes more than 2^32 - 2048 bytes */
  MORUN_WEIGHTS_PARTS = 50,             /* the offsets of the parts are not those of form and extents */
  MORUN_WEIGHTS_PACKED_SIZE = 51,       /* a packed tensor has another size than form and extents take */
  MORUN_WEIGHTS_MISALIGNED = 52,        /* the data do not begin at a multiple of 4096, or a packed tensor at one of
                                           2048 */
  MORUN_WEIGHTS_CHECKSUM_TEXT = 53,     /* a record's checksum is not "xxh3:" and 16 lower-case hexadecimal digits */
  MORUN_WEIGHTS_CHECKSUM = 54,          /* a tensor's bytes do not give its checksum */

  /* Tensors of a packed file. */
  MORUN_WEIGHTS_NOT_FOUND = 60,  /* no tensor has this name */
  MORUN_WEIGHTS_NOT_PACKED = 61, /* the tensor is carried over as it was, and a packed one is needed */

  /* Sources of a packer. */
  MORUN_WEIGHTS_SOURCE_KIND = 70,  /* a path is neither a directory nor ends in .safetensors, .index.json or .npy */
  MORUN_WEIGHTS_SOURCE_EMPTY = 71, /* a directory or an index without tensors, or a packer without sources */
  MORUN_WEIGHTS_INDEX = 72,        /* an index is longer than 100 000 000 bytes, is not JSON, nests values deeper than
                                      64 levels, has no weight_map of strings or has two, names a tensor twice, a file
                                      outside its folder, or a tensor that the named file does not have; or a folder
                                      has several indices */
  MORUN_WEIGHTS_NPY = 73,      /* a .npy file's header is not of format 1.0, 2.0 or 3.0, or the data are cut short */
  MORUN_WEIGHTS_NPY_TYPE = 74, /* a .npy file's values are not little-endian numbers of a dtype of safetensors */
  MORUN_WEIGHTS_ALREADY_PACKED = 75, /* a source is a packed file */

  /* Packing. */
  MORUN_WEIGHTS_RULE_UNUSED = 80,      /* a rule's pattern matches no tensor */
  MORUN_WEIGHTS_NON_FINITE = 81,       /* a NaN or an infinity among the weights; the text names tensor and place */
  MORUN_WEIGHTS_NO_ACTIVATION = 82,    /* no activation for a matrix that is to be calibrated, or activations are given
                                          and no packed matrix has one */
  MORUN_WEIGHTS_ACTIVATION_SHAPE = 83, /* an activation is not a matrix of n_inner columns */
  MORUN_WEIGHTS_ACTIVATION_VALUE = 84, /* a NaN or an infinity in an activation, or an activation of zeros alone */
  MORUN_WEIGHTS_COVARIANCE = 85,       /* the damped covariance has no Cholesky factor */
  MORUN_WEIGHTS_INTERRUPTED = 86,      /* morun_weights_packer_interrupt was called */

  /* Loading. */
  MORUN_WEIGHTS_REQUESTED_TWICE = 90,  /* a tensor stands twice among the requests */
  MORUN_WEIGHTS_GROUP_TOO_LARGE = 91,  /* a group takes more than the largest buffer; the text says how much */
  MORUN_WEIGHTS_TOO_MANY_BUFFERS = 92, /* more buffers are needed than the context has left; the text says how many, and
                                          which largest buffer would do */
  MORUN_WEIGHTS_BUFFER = 93,           /* tavik_buffer_alloc or tavik_buffer_free fails; the text carries its message */
  MORUN_WEIGHTS_SESSION = 94           /* a buffer of a8w4 matrices that are multiplied alone is not in session 0 */
};

/* Returns the name of a status without its prefix, such as "RANGE_GAP", or "?" for a number that is none. */
const char* morun_weights_status_name(int32_t status);

/* Returns what the calling thread's last failure was, in one sentence that names file and tensor; at most 1023 bytes, without
 * control characters: those of names stand as \x1b, and those of paths as ?. Empty until the thread's first failure; a
 * later success does not clear it. Valid until the thread's next call. */
const char* morun_weights_error_text(void);

/* ---- Forms, quantisers, layout ---- */

enum { MORUN_WEIGHTS_FORMAT_VERSION = 1 };

/* What a tensor of a packed file is. */
typedef enum morun_weights_form {
  MORUN_WEIGHTS_CARRIED = 0, /* not packed: the source's bytes in the source's dtype */
  MORUN_WEIGHTS_F16 = 1,
  MORUN_WEIGHTS_A8W8 = 2,
  MORUN_WEIGHTS_A8W4 = 3
} morun_weights_form;

/* How scale and zero point of a column are chosen. A value q stands for (q - zero point) * scale in all of them. */
typedef enum morun_weights_quantiser {
  MORUN_WEIGHTS_MINMAX = 0,     /* the column's range, stretched to include 0 */
  MORUN_WEIGHTS_MSE = 1,        /* the range of the least squared error of the column */
  MORUN_WEIGHTS_CALIBRATED = 2, /* the least error of the product with given activations, row after row of W */
  MORUN_WEIGHTS_LIBRARY = 3 /* tavik_f16_rm_to_i8_rm and tavik_f16_rm_to_i4_rm, zero point cut to the type's range */
} morun_weights_quantiser;

/* Where the parts of a packed matrix stand, in bytes from its start. Each begins at a multiple of 2048. */
typedef struct morun_weights_layout {
  uint64_t padded_n_inner; /* a multiple of 32 */
  uint64_t padded_n_col;   /* a multiple of 32 */
  uint64_t zero_points;    /* 0 in form f16, which has the values alone, at offset 0 */
  uint64_t scales;         /* likewise */
  uint64_t sums;           /* likewise */
  uint64_t n_byte;         /* of all parts; a multiple of 2048 below 2^32 */
} morun_weights_layout;

/* The layout of an n_inner x n_col matrix in `form` (f16, a8w8 or a8w4).
 *
 *   NULL_ARGUMENT   layout
 *   BAD_ARGUMENT    form
 *   EXTENTS         n_inner or n_col is 0, or the matrix takes more than 2^32 - 2048 bytes */
int32_t morun_weights_layout_of(int32_t form, uint64_t n_inner, uint64_t n_col, morun_weights_layout* layout);

/* ---- Quantising in memory ---- */

/* What calibration knows of a layer: the covariance of its activations, n_inner x n_inner in f64. */
typedef struct morun_weights_calibration morun_weights_calibration;

/* Makes an empty one.
 *
 *   NULL_ARGUMENT   calibration
 *   BAD_ARGUMENT    n_inner is 0 or above 65536
 *   NO_MEMORY       8 n_inner^2 bytes could not be had */
int32_t morun_weights_calibration_create(uint64_t n_inner, morun_weights_calibration** calibration);

/* Adds n_row activations of n_inner values to the covariance; value (r, k) is activation[r * row_stride + k].
 *
 *   NULL_ARGUMENT      calibration or activation
 *   BAD_ARGUMENT       row_stride is below n_inner, or the calibration is finished
 *   ACTIVATION_VALUE   a value is NaN or infinite; none of the rows is added then */
int32_t morun_weights_calibration_add(morun_weights_calibration* calibration, uint64_t n_row, const float* activation,
                                      uint64_t row_stride);

/* Adds `damping` times the mean of the diagonal to the diagonal and factorises the inverse. Takes 24 n_inner^2 bytes
 * while it runs. From then on several threads at a time may quantise with the calibration.
 *
 *   NULL_ARGUMENT      calibration
 *   BAD_ARGUMENT       damping is not within 0 to 1, or the calibration is finished
 *   ACTIVATION_VALUE   no activation other than zeros was added
 *   COVARIANCE         there is no Cholesky factor, which a larger damping mends; the calibration stays unfinished
 *   NO_MEMORY */
int32_t morun_weights_calibration_finish(morun_weights_calibration* calibration, double damping);

/* Frees a calibration. NULL is allowed. */
void morun_weights_calibration_free(morun_weights_calibration* calibration);

enum { MORUN_WEIGHTS_MAX_WORST_COLUMNS = 8 };

/* The error of one column. */
typedef struct morun_weights_column_error {
  uint64_t column;       /* its number */
  double relative_error; /* |w - w'| / |w|, Euclidean norms of the column, as every relative error here: 0 for 0 / 0, 1
                            where |w| alone is 0, and DBL_MAX where the error is infinite */
} morun_weights_column_error;

/* What packing did to the values; w' are the values that the packed matrix stands for. Sums of squares are in f64.
 * Elements that are NaN or infinite are counted, and left out of the sums with the elements of w' at their places. */
typedef struct morun_weights_statistics {
  uint64_t n_value;       /* true extents: without padding */
  uint64_t n_nan;         /* values that are NaN */
  uint64_t n_infinite;    /* values that are infinite */
  uint64_t n_overflow;    /* finite values that f16 rounds to infinity */
  uint64_t n_constant;    /* columns of a single value other than 0 */
  uint64_t n_zero;        /* columns of zeros alone */
  double sum_of_squares;  /* of w */
  double squared_error;   /* of w - w' */
  double product_squares; /* of X w, X being the calibration's activations; 0 without a calibration */
  double product_error;   /* of X (w - w'); likewise */
  uint32_t n_worst;       /* entries of `worst` */
  morun_weights_column_error
      worst[MORUN_WEIGHTS_MAX_WORST_COLUMNS]; /* the columns with the largest relative errors, the worst
                                                                        first */
} morun_weights_statistics;

/* How a matrix is to be packed. */
typedef struct morun_weights_recipe {
  int32_t form;                                 /* f16, a8w8 or a8w4 */
  int32_t quantiser;                            /* not used in form f16 */
  uint64_t n_inner;                             /* true extent of the whole matrix */
  uint64_t n_col;                               /* true extent of the whole matrix */
  const morun_weights_calibration* calibration; /* finished; required by calibrated. With it, the products' errors are
                                                   measured for every quantiser; NULL otherwise */
  int32_t allow_non_finite; /* 0: a NaN or an infinity fails. Otherwise form f16 keeps it; the quantisers take NaN for 0
                               and an infinity for the largest finite f16 of its sign, except library, which does what
                               tavik.h says */
  int32_t reserved;         /* 0 */
} morun_weights_recipe;

/* Packs columns first_column to first_column + n_column - 1 of a matrix into `packed`, the memory of the whole packed
 * matrix: their tiles, zero points, scales and sums, and the padding. The bytes do not depend on how a matrix is
 * divided into calls; calls for different columns of one matrix may run in several threads at a time.
 *
 * values        value (k, c) of the matrix is values[k * inner_stride + (c - first_column) * column_stride]: a
 *               row-major band has column_stride 1, a transposed one inner_stride 1
 * first_column  a multiple of 32
 * n_column      a multiple of 32, or what is left of n_col; at least 1
 * packed        aligned to 4 bytes, packed_size bytes, at least the layout's n_byte
 * statistics    receives the figures of these columns; may be NULL. On NON_FINITE it is filled too
 *
 *   NULL_ARGUMENT   recipe, values, packed, or the calibration where the quantiser is calibrated
 *   BAD_ARGUMENT    form, quantiser, columns, strides of 0 or packed_size; or a calibration that is not finished or of
 *                   another n_inner
 *   EXTENTS         as morun_weights_layout_of
 *   NON_FINITE      a value is NaN or infinite and allow_non_finite is 0; the text says (k, c) of the first in the
 *                   order of columns, and how many more these columns have. The columns' part of `packed` is undefined
 *                   then
 *   NO_MEMORY       working memory for 32 columns could not be had */
int32_t morun_weights_pack_columns(const morun_weights_recipe* recipe, uint64_t first_column, uint64_t n_column,
                                   const float* values, uint64_t inner_stride, uint64_t column_stride, void* packed,
                                   uint64_t packed_size, morun_weights_statistics* statistics);

/* Adds the figures of other columns of the same matrix. Neither may be NULL. */
void morun_weights_statistics_add(morun_weights_statistics* statistics, const morun_weights_statistics* other);

/* Sets columns first_column to first_column + n_column - 1 of an f32 matrix to the values that a packed matrix stands
 * for: (q - zero point) * scale, which f32 holds exactly; in form f16 the halves, widened. Padding is left out. Calls
 * for different columns may run in several threads at a time.
 *
 * packed         the whole packed matrix, packed_size bytes, at least the layout's n_byte
 * first_column   any of the n_col, as is n_column; at least 1 column
 * values         receives value (k, c) at values[k * inner_stride + (c - first_column) * column_stride]
 *
 *   NULL_ARGUMENT   packed or values
 *   BAD_ARGUMENT    form, columns, strides of 0, or packed_size below the layout's n_byte
 *   EXTENTS         as morun_weights_layout_of */
int32_t morun_weights_unpack_columns(int32_t form, uint64_t n_inner, uint64_t n_col, const void* packed,
                                     uint64_t packed_size, uint64_t first_column, uint64_t n_column, float* values,
                                     uint64_t inner_stride, uint64_t column_stride);

/* ---- Packing files ---- */

/* From sources and rules to a packed file: create, add_source and add_rule in any order, perhaps look at the decisions,
 * run, look at the reports, free. */
typedef struct morun_weights_packer morun_weights_packer;

/* How far a run has come. */
typedef struct morun_weights_progress {
  const char* tensor;     /* the one at work */
  uint64_t n_tensor_done; /* of n_tensor */
  uint64_t n_tensor;      /* all tensors */
  uint64_t n_byte_done;   /* of n_byte */
  uint64_t n_byte;        /* the sources' bytes */
  double seconds;         /* since the run began */
} morun_weights_progress;

/* How a packer works. */
typedef struct morun_weights_pack_options {
  int32_t form;      /* of the matrices that are packed and that no rule gives another; default a8w8 */
  int32_t quantiser; /* default minmax */
  int32_t transpose; /* matrices of safetensors files are n_col x n_inner: default 1; 0: n_inner x n_col. Those of
                               .npy files are n_inner x n_col always */
  int32_t allow_non_finite; /* default 0, see morun_weights_recipe */
  uint32_t n_job;           /* threads that quantise, 1 to 256; default 1. The bytes are the same for any number */
  uint32_t reserved;        /* 0 */
  double damping;           /* of calibrated; default 0.05 */
  const char* activations;  /* a folder with TENSOR.npy for each calibrated matrix, or one .npy file where a single
                               matrix is packed; n_row x n_inner of floats. Default NULL. With it, the products'
                               errors are measured for every matrix that has one; at least one must have one */
  /* Called in the thread that runs the packer, at most 10 times a second and once at the end, before the file appears:
   * an interrupt from any of these calls leaves no file. Default NULL. */
  void (*progress)(void* user, const morun_weights_progress* progress);
  void* user; /* handed to progress */
} morun_weights_pack_options;

/* Fills in the defaults. NULL is not allowed. */
void morun_weights_pack_options_init(morun_weights_pack_options* options);

/* Copies the options, texts included; NULL means the defaults.
 *
 *   NULL_ARGUMENT   packer
 *   BAD_ARGUMENT    an option is out of range, or calibrated is asked for without activations
 *   NO_MEMORY */
int32_t morun_weights_packer_create(const morun_weights_pack_options* options, morun_weights_packer** packer);

/* Adds the tensors of
 *   NAME.safetensors   one file
 *   NAME.index.json    the files that an index names, beside it
 *   a directory        the one .index.json file in it; or all its .safetensors files; or all its .npy files
 *   NAME.npy           one tensor, whose name is NAME
 * and reads headers alone. A source that fails adds nothing. Its files are closed again until the packer runs.
 *
 *   NULL_ARGUMENT, NO_MEMORY, OPEN, READ, SHRUNK, those of an invalid safetensors file, HEADER_NAME (also of a
 *   .npy file), DUPLICATE_NAME, SOURCE_KIND, SOURCE_EMPTY, INDEX, NPY, NPY_TYPE, ALREADY_PACKED
 *   BAD_ARGUMENT    the packer has run */
int32_t morun_weights_packer_add_source(morun_weights_packer* packer, const char* path);

/* Gives the tensors whose names match `pattern` (fnmatch without flags) a form; CARRIED leaves them as they are. The
 * last rule that matches decides. Without a rule are packed: 2-dimensional tensors of F64, F32, F16 or BF16 whose
 * names end in "weight" and contain neither "embed" nor "norm", and those of .npy files whatever their names. Tensors
 * of other dtypes or dimensions, and such of which an extent is 0, are carried over whatever the rules say.
 *
 *   NULL_ARGUMENT, NO_MEMORY
 *   BAD_ARGUMENT    form, or the packer has run */
int32_t morun_weights_packer_add_rule(morun_weights_packer* packer, const char* pattern, int32_t form);

/* What becomes of a tensor. Texts live until the packer gets another source or rule, or ends. */
typedef struct morun_weights_decision {
  const char* name;       /* of the tensor */
  const char* file;       /* the source's path */
  const char* dtype;      /* of the source: "BF16" */
  const uint64_t* shape;  /* of the source */
  uint64_t n_dimension;   /* entries of `shape` */
  uint64_t n_source_byte; /* bytes in the source */
  int32_t form;           /* morun_weights_form */
  int32_t quantiser;      /* not used in forms carried and f16 */
  const char* reason;     /* such as "rule *.q_proj.weight" or "name contains norm" */
  uint64_t n_inner;       /* true extent; 0 where the form is carried */
  uint64_t n_col;         /* likewise */
  uint64_t n_byte;      /* in the packed file; 0 for a matrix that is too large, of which the reason says so, and which
                      makes a run fail with EXTENTS */
  int32_t is_done;      /* whether a run has packed it; what follows is zero until then */
  uint32_t reserved;    /* 0 */
  double error;         /* |w - w'| / |w|, Frobenius norms; 0 for carried */
  double product_error; /* |X (w - w')| / |X w| on the activations, or -1 without */
  morun_weights_statistics statistics; /* zeros where carried */
} morun_weights_decision;

/* The number of tensors, and what becomes of number `index`, in the order in which they stand in the packed file:
 * packed matrices first, then those carried over, each in the order of the sources.
 *
 *   NULL_ARGUMENT
 *   BAD_ARGUMENT   index */
int32_t morun_weights_packer_count(const morun_weights_packer* packer, uint64_t* count);
int32_t morun_weights_packer_decision(const morun_weights_packer* packer, uint64_t index,
                                      morun_weights_decision* decision);

/* Packs. The file appears at `output` whole, replacing what was there, or not at all: until then it has no name or
 * another one in the same folder, which is gone after every failure. May be called again after a failure, and not
 * after a success. Holds at most 64 MiB a job and the largest packed matrix, with calibrated 24 n_inner^2 bytes more.
 * Fewer jobs run where n_inner is above 160 000; where n_inner is above 160 000 times n_job, one job holds 400 bytes
 * for each row.
 *
 *   NULL_ARGUMENT, NO_MEMORY, OPEN, READ, SHRUNK, WRITE, SOURCE_EMPTY, NPY, NPY_TYPE, RULE_UNUSED, NON_FINITE,
 *   NO_ACTIVATION, ACTIVATION_SHAPE, ACTIVATION_VALUE, COVARIANCE, INTERRUPTED
 *   EXTENTS        a packed matrix would take more than 2^32 - 2048 bytes
 *   HEADER_TOO_LONG   the tensors' names and records take more than 100 000 000 bytes
 *   BAD_ARGUMENT   the packer has run; or `activations` is a file, and more than one matrix is packed */
int32_t morun_weights_packer_run(morun_weights_packer* packer, const char* output);

/* Has a run that is under way end with INTERRUPTED, within a fraction of a second or the time that a Cholesky factor
 * takes. May be called by any thread at any time of the packer's life, and by a signal handler. */
void morun_weights_packer_interrupt(morun_weights_packer* packer);

/* Frees a packer. NULL is allowed. */
void morun_weights_packer_free(morun_weights_packer* packer);

/* ---- Packed files ---- */

/* An open packed file. Everything that its header says is checked when it is opened. */
typedef struct morun_weights_file morun_weights_file;

/* A tensor of a packed file. Texts live as long as the file is open. */
typedef struct morun_weights_tensor {
  const char* name;            /* of the tensor */
  int32_t form;                /* morun_weights_form */
  int32_t quantiser;           /* not used in forms carried and f16 */
  const char* dtype;           /* of the bytes: "U8" where packed */
  const uint64_t* shape;       /* of the bytes */
  uint64_t n_dimension;        /* entries of `shape` */
  uint64_t file_offset;        /* of its first byte in the file */
  uint64_t n_byte;             /* bytes in the file */
  uint64_t n_inner;            /* true extent; 0 where carried */
  uint64_t n_col;              /* likewise */
  morun_weights_layout layout; /* zeros where carried */
  const char* source_name;     /* in the checkpoint */
  const char* source_dtype;    /* in the checkpoint */
  double error;                /* measured when packed, see morun_weights_decision */
  double product_error;        /* or -1 */
  uint64_t checksum;           /* XXH3, 64 bits, of its n_byte bytes */
} morun_weights_tensor;

/* Opens and checks a packed file. The data are not read.
 *
 *   NULL_ARGUMENT, NO_MEMORY, OPEN, READ, SHRUNK
 *   one of TOO_SHORT to TRAILING_DATA       no valid safetensors file
 *   one of NOT_PACKED_FILE to CHECKSUM_TEXT   no valid packed file */
int32_t morun_weights_file_open(const char* path, morun_weights_file** file);

/* Closes a packed file. NULL is allowed. Weights that were loaded stay. */
void morun_weights_file_close(morun_weights_file* file);

/* The number of tensors; tensor number `index`, in the order of their bytes; the number of the tensor called `name`.
 *
 *   NULL_ARGUMENT
 *   BAD_ARGUMENT   index is not below the number of tensors
 *   NOT_FOUND      no tensor has this name */
int32_t morun_weights_file_count(const morun_weights_file* file, uint64_t* count);
int32_t morun_weights_file_tensor(const morun_weights_file* file, uint64_t index, morun_weights_tensor* tensor);
int32_t morun_weights_file_find(const morun_weights_file* file, const char* name, uint64_t* index);

/* Reads a tensor and compares it with its checksum. Several threads may verify and read one file at a time.
 *
 *   NULL_ARGUMENT, BAD_ARGUMENT (index), NO_MEMORY, READ, SHRUNK
 *   CHECKSUM   the bytes are not those that were packed */
int32_t morun_weights_file_verify(const morun_weights_file* file, uint64_t index);

/* Reads `n_byte` bytes from byte `offset` of a tensor on, as they stand, without a look at the checksum. On READ and
 * SHRUNK the bytes at `bytes` are undefined.
 *
 *   NULL_ARGUMENT   file; or bytes where n_byte is not 0
 *   READ, SHRUNK
 *   BAD_ARGUMENT   index, or a range that does not lie in the tensor */
int32_t morun_weights_file_read(const morun_weights_file* file, uint64_t index, uint64_t offset, uint64_t n_byte,
                                void* bytes);

/* Reads all n_byte bytes of a tensor, as they stand, and compares them with the checksum on the way: each byte of the
 * file is read once. On READ, SHRUNK and CHECKSUM the bytes at `bytes` are undefined.
 *
 *   NULL_ARGUMENT   file; or bytes where the tensor's n_byte is not 0
 *   BAD_ARGUMENT    index
 *   READ, SHRUNK, CHECKSUM */
int32_t morun_weights_file_read_verified(const morun_weights_file* file, uint64_t index, void* bytes);

/* Reads a packed tensor and stores the values it stands for, row-major, n_inner x n_col f32. `values` is undefined
 * after READ, SHRUNK, CHECKSUM and NO_MEMORY; n_byte bytes of working memory are taken.
 *
 *   NULL_ARGUMENT, BAD_ARGUMENT (index), NO_MEMORY, READ, SHRUNK, CHECKSUM
 *   NOT_PACKED   the tensor is carried over */
int32_t morun_weights_file_unpack(const morun_weights_file* file, uint64_t index, float* values);

/* ---- Loading ---- */

/* A tensor to be loaded. */
typedef struct morun_weights_request {
  uint64_t tensor; /* its number in the file; a packed one */
  uint32_t group;  /* tensors of the same group other than 0 go into one buffer and thereby into one session, as the
                      fused products want them; 0: into any */
  uint32_t alone;  /* other than 0: a tensor of a group is also multiplied without the others. Of a8w4 such a tensor has
                      to be in session 0, and its group with it. Tensors without a group are taken to be multiplied
                      alone */
} morun_weights_request;

/* Where a tensor goes. */
typedef struct morun_weights_place {
  uint32_t buffer; /* number of the buffer in the plan */
  uint32_t offset; /* bytes from the buffer's start; a multiple of 2048 */
} morun_weights_place;

/* The buffers that loading makes. */
typedef struct morun_weights_plan {
  uint32_t n_buffer;                       /* entries of `buffer_size` */
  uint32_t n_first_session;                /* the first so many buffers have to be in session 0 */
  uint64_t buffer_size[TAVIK_MAX_BUFFERS]; /* bytes, multiples of 2048 */
} morun_weights_plan;

/* Plans which tensor goes where, without a context. Buffers that have to be in session 0 come first, because a buffer
 * goes into the first session that has room. The plan keeps the order of the requests as long as that takes no more
 * buffers than there are, because changes of sessions between products take remote calls.
 *
 * largest_buffer   bytes that no buffer exceeds, 2048 to 2^32 - 2048; 0 stands for 2^28
 * n_free_buffer    buffers that may be made, at most TAVIK_MAX_BUFFERS
 * places           receives n_request places, in the order of the requests
 *
 *   NULL_ARGUMENT      file, plan; or requests or places where n_request is not 0
 *   BAD_ARGUMENT       largest_buffer, n_free_buffer, or a tensor's number
 *   NOT_PACKED         a tensor is carried over
 *   REQUESTED_TWICE, GROUP_TOO_LARGE (also a single tensor that does not fit), TOO_MANY_BUFFERS, NO_MEMORY */
int32_t morun_weights_plan_places(const morun_weights_file* file, uint64_t n_request,
                                  const morun_weights_request* requests, uint64_t largest_buffer,
                                  uint32_t n_free_buffer, morun_weights_plan* plan, morun_weights_place* places);

/* How weights are loaded. */
typedef struct morun_weights_load_options {
  uint64_t largest_buffer; /* as in morun_weights_plan_places; default 2^28 */
  int32_t skip_checksums;  /* default 0: what is read is compared with the checksums while it is read */
  int32_t reserved;        /* 0 */
} morun_weights_load_options;

/* Fills in the defaults. NULL is not allowed. */
void morun_weights_load_options_init(morun_weights_load_options* options);

/* Weights in shared buffers of a context. */
typedef struct morun_weights_loaded morun_weights_loaded;

/* What the products take of a loaded matrix: W_fd, Wq_offset (W_offset for f16), Wz_offset, Ws_offset, Wsum_offset,
 * and the padded extents as n_inner and n_col. The single a8w4 product needs tavik_lock_compute_device with session 0
 * active. */
typedef struct morun_weights_operand {
  int32_t form;           /* morun_weights_form */
  int32_t fd;             /* descriptor of the buffer */
  uint32_t session;       /* number of the session that maps the buffer */
  uint32_t q_offset;      /* of the tensor in the buffer, and of its values */
  uint64_t z_offset;      /* 0 in form f16, as the next two */
  uint64_t s_offset;      /* of the scales */
  uint64_t sum_offset;    /* of the sums */
  int32_t padded_n_inner; /* what the products take as n_inner */
  int32_t padded_n_col;   /* what the products take as n_col */
  int32_t n_inner;        /* true extent */
  int32_t n_col;          /* true extent */
  const void* bytes;      /* the tensor in the host's memory */
} morun_weights_operand;

/* Plans with the buffers that the context has left, makes the buffers and reads the tensors straight into them; takes
 * less than 1 MiB of host memory beside (above 2000 requests, 512 bytes for each). On success stores weights to be
 * released before the context is cleaned up. The file may be closed afterwards. `options` may be NULL for the
 * defaults. Sessions that were opened for the buffers stay open, after a failure too.
 *
 *   NULL_ARGUMENT   file, context, loaded; or requests where n_request is not 0
 *   those of morun_weights_plan_places
 *   BUFFER          the platform has no room, no descriptor or no session left
 *   SESSION         session 0 has no room for what has to be in it
 *   READ, SHRUNK, CHECKSUM, NO_MEMORY
 * After every failure the buffers are freed again; where the DSP refuses that too, they stay in the context's table,
 * and the text says so. */
int32_t morun_weights_load(const morun_weights_file* file, tavik_context* context, uint64_t n_request,
                           const morun_weights_request* requests, const morun_weights_load_options* options,
                           morun_weights_loaded** loaded);

/* What the products take of request number `index`.
 *
 *   NULL_ARGUMENT
 *   BAD_ARGUMENT   index */
int32_t morun_weights_operand_of(const morun_weights_loaded* loaded, uint64_t index, morun_weights_operand* operand);

/* Frees the buffers and `loaded`. NULL is allowed. A buffer that the program has freed by tavik_buffer_free is passed
 * over, unless a later buffer of the context has its descriptor and address.
 *
 *   BUFFER   the DSP refuses to let go of a buffer. `loaded` stays with the buffers that could not be freed, to be
 *            released again; its operands are not to be used any more */
int32_t morun_weights_release(morun_weights_loaded* loaded);

#ifdef __cplusplus
}
#endif
#endif
