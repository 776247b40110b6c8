"""The functions of libpelmor.so.0, with the types of pelmor/pelmor.h."""

import ctypes


class Label(ctypes.Structure):
    """pelmor_label"""

    _fields_ = [("name", ctypes.c_char_p), ("value", ctypes.c_char_p)]


_CLIENT = ctypes.c_void_p
_METRIC = (_CLIENT, ctypes.c_char_p, ctypes.POINTER(Label), ctypes.c_size_t)
_LOG = (_CLIENT, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t)

# The result and the arguments of each.
_FUNCTIONS = {
    "pelmor_version": (ctypes.c_char_p,),
    "pelmor_open": (ctypes.c_int, ctypes.c_uint32, ctypes.POINTER(_CLIENT)),
    "pelmor_close": (None, _CLIENT),
    "pelmor_message": (ctypes.c_char_p, _CLIENT),
    "pelmor_record_bool": (ctypes.c_int, *_METRIC, ctypes.c_bool),
    "pelmor_record_int64": (ctypes.c_int, *_METRIC, ctypes.c_int64),
    "pelmor_record_double": (ctypes.c_int, *_METRIC, ctypes.c_double),
    "pelmor_record_string": (ctypes.c_int, *_METRIC, ctypes.c_char_p),
    "pelmor_record_structured_data": (ctypes.c_int, *_LOG),
    "pelmor_record_offline_data": (ctypes.c_int, *_LOG),
    "pelmor_flush": (ctypes.c_int, _CLIENT, ctypes.c_uint32),
    "pelmor_lost_records": (ctypes.c_uint64, _CLIENT),
    "pelmor_poll_fd": (ctypes.c_int, _CLIENT),
    "pelmor_process": (ctypes.c_int, _CLIENT),
}


def _load() -> ctypes.CDLL:
    library = ctypes.CDLL("libpelmor.so.0")
    for name, (result, *arguments) in _FUNCTIONS.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    return library


LIBRARY = _load()
