// The constructors of the module's exception types and receipt stand-in.
#include "operations.hpp"

namespace tw::ops {

object search_error_init(handle self, handle error_code, handle recovery_advice, handle message, handle status) {
    set_attr(self, ID("error_code"), error_code);
    set_attr(self, ID("recovery_advice"), recovery_advice);
    set_attr(self, ID("message"), message);
    set_attr(self, ID("status"), status);
    call(get_attr(handle(PyExc_Exception), ID("__init__")), {self, message});
    return none();
}

object row_schema_error_init(handle self, handle source_kind_arg, handle missing_arg, handle row_id, handle message_arg) {
    object source_kind = py_str(source_kind_arg);
    object missing = steal(PyFrozenSet_New(missing_arg.ptr()));
    set_attr(self, ID("source_kind"), source_kind);
    set_attr(self, ID("missing"), missing);
    set_attr(self, ID("row_id"), row_id);
    object message = borrow(message_arg.ptr());
    if (is_none(message)) {
        message = ftext({source_kind, str_of(" row "), py_repr(row_id), str_of(" payload_json schema violation")});
        if (PySet_GET_SIZE(missing.ptr()) > 0) {
            object l = list_from(missing);
            check_int(PyList_Sort(l.ptr()));
            object sep = str_of(", ");
            object keys = steal(PyUnicode_Join(sep.ptr(), l.ptr()));
            message = ftext({message, str_of("; missing keys: "), keys});
        }
    }
    call(get_attr(handle(PyExc_ValueError), ID("__init__")), {self, message});
    return none();
}

object receipt_record_init(handle self, handle submission_id) {
    set_attr(self, ID("submission_id"), submission_id);
    return none();
}

}  // namespace tw::ops
