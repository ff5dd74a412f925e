// Finding the signal pool of an era configuration.
#include "core/module.hpp"

namespace tw::binding {

object pool_id_from_entry(handle pool) {
    object value;
    if (is_dict(pool)) {
        value = dict_get(pool, ID("signal_pool_id"));
        if (!truthy(value)) value = dict_get(pool, ID("name"));
    } else {
        value = get_attr_or_none(pool, ID("signal_pool_id"));
        if (!truthy(value)) value = get_attr_or_none(pool, ID("name"));
    }
    return is_nonempty_str(value) ? value : none();
}

object first_signal_pool_id(handle era_config) {
    object pools = none();
    if (!is_none(era_config))
        pools = is_dict(era_config) ? dict_get(era_config, ID("signal_pools")) : get_attr_or_none(era_config, ID("signal_pools"));
    bool usable = (is_list(pools) || is_tuple(pools)) && PyObject_Length(pools.ptr()) > 0;
    if (!usable && !is_none(era_config)) {
        object data = get_attr_or_none(era_config, ID("_data"));
        if (is_dict(data)) pools = dict_get(data, ID("signal_pools"));
    }
    if (!is_list(pools) && !is_tuple(pools)) return none();
    object seq = steal(PySequence_Fast(pools.ptr(), ""));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(seq.ptr()); ++i) {
        object id = call(global(ID("_pool_id_from_config_entry")), {PySequence_Fast_GET_ITEM(seq.ptr(), i)});
        if (!is_none(id)) return id;
    }
    return none();
}

static object f_pool_entry(Args& a) { return pool_id_from_entry(a[0]); }
static object f_first_pool(Args& a) { return first_signal_pool_id(a[0]); }

}  // namespace tw::binding

namespace tw {

void register_binding(handle m) {
    using namespace binding;
    def_function<f_pool_entry>(m, "_pool_id_from_config_entry(pool)");
    def_function<f_first_pool>(m, "_first_signal_pool_id_from_era_config(era_config)");
}

}  // namespace tw
