/* The bare scan of a list of str: each entry's UTF-8 buffer and length read in C, one byte of
 * each touched so the loop cannot be optimised away. No operation that looks at every entry of
 * a list of paths can do less. Built by bench_paths.py for the benchmark alone. */
#define PY_SSIZE_T_CLEAN
#include <Python.h>

static PyObject *scan(PyObject *module, PyObject *list)
{
    if (!PyList_Check(list)) {
        PyErr_SetString(PyExc_TypeError, "scan() needs a list");
        return NULL;
    }
    size_t touched = 0;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list); ++i) {
        Py_ssize_t size = 0;
        const char *data = PyUnicode_AsUTF8AndSize(PyList_GET_ITEM(list, i), &size);
        if (data == NULL) return NULL;
        touched += size > 0 ? (unsigned char)data[size - 1] : 0;
    }
    return PyLong_FromSize_t(touched);
}

static PyMethodDef methods[] = {{"scan", scan, METH_O, NULL}, {NULL, NULL, 0, NULL}};
static struct PyModuleDef definition = {PyModuleDef_HEAD_INIT, "scan_floor", NULL, 0, methods};

PyMODINIT_FUNC PyInit_scan_floor(void) { return PyModuleDef_Init(&definition); }
