#!/usr/bin/python3
"""Converts MediaPipe's selfie-segmentation TFLite models into ONNX for OpenCV's dnn module.

Debian has no TFLite runtime, so the flatbuffer is read field by field (indices of the
TFLite schema) and every operator of these two models is rewritten as ONNX operators in
NCHW layout. Only the operators the models use are handled; anything else stops the
conversion with a message naming it.

usage: convert_selfie_model.py MODEL.tflite OUT.onnx
"""
import sys

import flatbuffers
import flatbuffers.number_types as N
import numpy as np
import onnx
from flatbuffers.table import Table
from onnx import TensorProto, helper, numpy_helper

# BuiltinOperator codes.
ADD, AVERAGE_POOL_2D, CONV_2D, DEPTHWISE_CONV_2D, DEQUANTIZE = 0, 1, 3, 4, 6
LOGISTIC, MUL, RELU, RESIZE_BILINEAR, CUSTOM, MEAN, HARD_SWISH = 14, 18, 19, 23, 32, 40, 117
# TensorType codes.
FLOAT32, FLOAT16, INT32 = 0, 1, 2
NUMPY_TYPES = {FLOAT32: np.float32, FLOAT16: np.float16, INT32: np.int32}
# Padding and fused activation codes.
SAME, VALID = 0, 1
ACT_NONE, ACT_RELU = 0, 1


class Reader:
    """Field access on flatbuffer tables by vtable slot."""

    def __init__(self, data):
        self.data = bytearray(data)

    def root(self):
        return Table(self.data, flatbuffers.encode.Get(flatbuffers.packer.uoffset, self.data, 0))

    @staticmethod
    def _slot(table, index):
        return table.Offset(4 + 2 * index)

    def tables(self, table, index):
        o = self._slot(table, index)
        if not o:
            return []
        start = table.Vector(o)
        return [Table(table.Bytes, table.Indirect(start + 4 * i)) for i in range(table.VectorLen(o))]

    def table(self, table, index):
        o = self._slot(table, index)
        return Table(table.Bytes, table.Indirect(o + table.Pos)) if o else None

    def ints(self, table, index):
        o = self._slot(table, index)
        if not o:
            return []
        start = table.Vector(o)
        return [table.Get(N.Int32Flags, start + 4 * i) for i in range(table.VectorLen(o))]

    def raw(self, table, index):
        o = self._slot(table, index)
        if not o:
            return b""
        start = table.Vector(o)
        return bytes(table.Bytes[start:start + table.VectorLen(o)])

    def string(self, table, index):
        o = self._slot(table, index)
        return table.String(o + table.Pos).decode() if o else None

    def scalar(self, table, index, flags, default=0):
        if table is None:
            return default
        o = self._slot(table, index)
        return table.Get(flags, o + table.Pos) if o else default


def same_pads(in_size, kernel, stride, dilation=1):
    """TFLite SAME padding: the extra pixel, if any, goes after (bottom or right)."""
    out = (in_size + stride - 1) // stride
    total = max((out - 1) * stride + (kernel - 1) * dilation + 1 - in_size, 0)
    return total // 2, total - total // 2


class Converter:
    def __init__(self, path):
        self.r = Reader(open(path, "rb").read())
        model = self.r.root()
        self.codes = []
        for code in self.r.tables(model, 1):
            deprecated = self.r.scalar(code, 0, N.Int8Flags)
            builtin = self.r.scalar(code, 3, N.Int32Flags)
            self.codes.append((max(deprecated, builtin), self.r.string(code, 1)))
        self.buffers = [self.r.raw(b, 0) for b in self.r.tables(model, 4)]
        subgraphs = self.r.tables(model, 2)
        if len(subgraphs) != 1:
            sys.exit("expected one subgraph, found %d" % len(subgraphs))
        self.graph = subgraphs[0]
        self.tensors = self.r.tables(self.graph, 0)
        self.nodes, self.inits, self.consts, self.counter = [], [], {}, 0
        for index, tensor in enumerate(self.tensors):
            data = self.buffers[self.r.scalar(tensor, 2, N.Uint32Flags)]
            if data:
                kind = self.r.scalar(tensor, 1, N.Int8Flags)
                if kind not in NUMPY_TYPES:
                    sys.exit("tensor %d has unsupported type %d" % (index, kind))
                self.consts[index] = np.frombuffer(data, NUMPY_TYPES[kind]).reshape(self.shape(index))

    def shape(self, index):
        return self.r.ints(self.tensors[index], 0)

    def name(self, index):
        return "t%d" % index

    def fresh(self, stem):
        self.counter += 1
        return "%s_%d" % (stem, self.counter)

    def constant(self, array, stem="c"):
        name = self.fresh(stem)
        self.inits.append(numpy_helper.from_array(np.ascontiguousarray(array), name))
        return name

    def value(self, index):
        """Float32 constant of a tensor, or None when it is computed."""
        array = self.consts.get(index)
        return None if array is None else array.astype(np.float32)

    def operand(self, index, channels_last_rank):
        """Name of an elementwise operand: a constant is brought into NCHW broadcast form."""
        array = self.value(index)
        if array is None:
            return self.name(index)
        if array.ndim == 4:
            array = array.transpose(0, 3, 1, 2)
        elif array.ndim == 1 and channels_last_rank == 4:
            array = array.reshape(1, -1, 1, 1)
        return self.constant(array)

    def activation(self, out_name, code):
        if code == ACT_NONE:
            return out_name
        if code != ACT_RELU:
            sys.exit("fused activation %d not supported" % code)
        raw = self.fresh("preact")
        self.nodes[-1].output[0] = raw
        self.nodes.append(helper.make_node("Relu", [raw], [out_name]))
        return out_name

    def conv(self, op, inputs, outputs, depthwise):
        options = self.r.table(op, 4)
        stride_w = self.r.scalar(options, 1, N.Int32Flags, 1)
        stride_h = self.r.scalar(options, 2, N.Int32Flags, 1)
        padding = self.r.scalar(options, 0, N.Int8Flags, SAME)
        if depthwise:
            act = self.r.scalar(options, 4, N.Int8Flags)
            dil_w = self.r.scalar(options, 5, N.Int32Flags, 1)
            dil_h = self.r.scalar(options, 6, N.Int32Flags, 1)
        else:
            act = self.r.scalar(options, 3, N.Int8Flags)
            dil_w = self.r.scalar(options, 4, N.Int32Flags, 1)
            dil_h = self.r.scalar(options, 5, N.Int32Flags, 1)
        weights = self.value(inputs[1])
        if weights is None:
            sys.exit("convolution weights must be constant")
        _, in_h, in_w, in_c = self.shape(inputs[0])
        if depthwise:  # [1, kh, kw, C] -> [C, 1, kh, kw]
            kernel = weights.transpose(3, 0, 1, 2)
            group = in_c
        else:  # [O, kh, kw, I] -> [O, I, kh, kw]
            kernel = weights.transpose(0, 3, 1, 2)
            group = 1
        kh, kw = kernel.shape[2], kernel.shape[3]
        if padding == SAME:
            top, bottom = same_pads(in_h, kh, stride_h, dil_h)
            left, right = same_pads(in_w, kw, stride_w, dil_w)
        else:
            top = bottom = left = right = 0
        names = [self.name(inputs[0]), self.constant(kernel, "w")]
        if len(inputs) > 2 and inputs[2] >= 0:
            names.append(self.constant(self.value(inputs[2]), "b"))
        self.nodes.append(helper.make_node(
            "Conv", names, [self.name(outputs[0])], kernel_shape=[kh, kw],
            strides=[stride_h, stride_w], dilations=[dil_h, dil_w], group=group,
            pads=[top, left, bottom, right]))
        self.activation(self.name(outputs[0]), act)

    def global_pool(self, inputs, outputs):
        self.nodes.append(helper.make_node("GlobalAveragePool", [self.name(inputs[0])],
                                           [self.name(outputs[0])]))

    def average_pool(self, op, inputs, outputs):
        options = self.r.table(op, 4)
        _, in_h, in_w, _ = self.shape(inputs[0])
        filter_w = self.r.scalar(options, 3, N.Int32Flags)
        filter_h = self.r.scalar(options, 4, N.Int32Flags)
        if (filter_h, filter_w) != (in_h, in_w):
            sys.exit("only global average pooling is supported")
        self.global_pool(inputs, outputs)

    def mean(self, op, inputs, outputs):
        axes = self.consts.get(inputs[1])
        if axes is None or sorted(int(a) for a in axes.ravel()) != [1, 2]:
            sys.exit("only MEAN over height and width is supported")
        if len(self.shape(outputs[0])) != 4:
            sys.exit("MEAN must keep its dimensions")
        self.global_pool(inputs, outputs)

    def elementwise(self, op, inputs, outputs, kind):
        rank = len(self.shape(outputs[0]))
        names = [self.operand(i, rank) for i in inputs]
        self.nodes.append(helper.make_node(kind, names, [self.name(outputs[0])]))
        self.activation(self.name(outputs[0]), self.r.scalar(self.r.table(op, 4), 0, N.Int8Flags))

    def hard_swish(self, inputs, outputs):
        # x * hard_sigmoid(x), hard_sigmoid(x) = clip(x / 6 + 0.5, 0, 1).
        x = self.name(inputs[0])
        gate = self.fresh("hs")
        self.nodes += [
            helper.make_node("HardSigmoid", [x], [gate], alpha=1.0 / 6.0, beta=0.5),
            helper.make_node("Mul", [x, gate], [self.name(outputs[0])]),
        ]

    def resize(self, op, inputs, outputs):
        options = self.r.table(op, 4)
        align = self.r.scalar(options, 2, N.BoolFlags, False)
        half = self.r.scalar(options, 3, N.BoolFlags, False)
        mode = "align_corners" if align else ("half_pixel" if half else "asymmetric")
        size = self.consts.get(inputs[1])
        if size is None:
            sys.exit("RESIZE_BILINEAR needs a constant size")
        channels = self.shape(inputs[0])[3]
        sizes = np.array([1, channels, int(size[0]), int(size[1])], np.int64)
        self.nodes.append(helper.make_node(
            "Resize", [self.name(inputs[0]), self.constant(np.array([], np.float32), "roi"),
                       self.constant(np.array([], np.float32), "scales"),
                       self.constant(sizes, "sizes")],
            [self.name(outputs[0])], mode="linear", coordinate_transformation_mode=mode))

    def transpose_conv_bias(self, op, inputs, outputs):
        params = self.r.raw(op, 5)
        padding, stride_w, stride_h = SAME, 2, 2
        if len(params) >= 12:
            padding, stride_w, stride_h = np.frombuffer(params[:12], np.int32)
        weights = self.value(inputs[1])  # [O, kh, kw, I]
        kernel = weights.transpose(3, 0, 1, 2)  # [I, O, kh, kw]
        kh, kw = kernel.shape[2], kernel.shape[3]
        _, in_h, in_w, _ = self.shape(inputs[0])
        _, out_h, out_w, _ = self.shape(outputs[0])
        # Output size is fixed by the model; padding removes what the full scatter adds.
        extra_h = (in_h - 1) * stride_h + kh - out_h
        extra_w = (in_w - 1) * stride_w + kw - out_w
        if padding == VALID and (extra_h, extra_w) != (0, 0):
            sys.exit("unexpected transposed convolution size")
        pads = [extra_h // 2, extra_w // 2, extra_h - extra_h // 2, extra_w - extra_w // 2]
        self.nodes.append(helper.make_node(
            "ConvTranspose", [self.name(inputs[0]), self.constant(kernel, "w"),
                              self.constant(self.value(inputs[2]), "b")],
            [self.name(outputs[0])], kernel_shape=[int(kh), int(kw)],
            strides=[int(stride_h), int(stride_w)], pads=[int(p) for p in pads]))

    def convert(self):
        for op in self.r.tables(self.graph, 3):
            code, custom = self.codes[self.r.scalar(op, 0, N.Uint32Flags)]
            inputs, outputs = self.r.ints(op, 1), self.r.ints(op, 2)
            if code == DEQUANTIZE:
                source = self.consts.get(inputs[0])
                if source is None:
                    sys.exit("DEQUANTIZE of a computed tensor is not supported")
                self.consts[outputs[0]] = source.astype(np.float32)
            elif code == CONV_2D:
                self.conv(op, inputs, outputs, depthwise=False)
            elif code == DEPTHWISE_CONV_2D:
                self.conv(op, inputs, outputs, depthwise=True)
            elif code == HARD_SWISH:
                self.hard_swish(inputs, outputs)
            elif code == RELU:
                self.nodes.append(helper.make_node("Relu", [self.name(inputs[0])],
                                                   [self.name(outputs[0])]))
            elif code == LOGISTIC:
                self.nodes.append(helper.make_node("Sigmoid", [self.name(inputs[0])],
                                                   [self.name(outputs[0])]))
            elif code == ADD:
                self.elementwise(op, inputs, outputs, "Add")
            elif code == MUL:
                self.elementwise(op, inputs, outputs, "Mul")
            elif code == RESIZE_BILINEAR:
                self.resize(op, inputs, outputs)
            elif code == AVERAGE_POOL_2D:
                self.average_pool(op, inputs, outputs)
            elif code == MEAN:
                self.mean(op, inputs, outputs)
            elif code == CUSTOM and custom == "Convolution2DTransposeBias":
                self.transpose_conv_bias(op, inputs, outputs)
            else:
                sys.exit("operator %s not supported" % (custom or code))
        (inp,), (out,) = self.r.ints(self.graph, 1), self.r.ints(self.graph, 2)
        n, h, w, c = self.shape(inp)
        _, oh, ow, oc = self.shape(out)
        graph = helper.make_graph(
            self.nodes, "selfie_segmentation",
            [helper.make_tensor_value_info(self.name(inp), TensorProto.FLOAT, [n, c, h, w])],
            [helper.make_tensor_value_info(self.name(out), TensorProto.FLOAT, [n, oc, oh, ow])],
            self.inits)
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)],
                                  producer_name="convert_selfie_model")
        model.ir_version = 7
        onnx.checker.check_model(model)
        return model


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    onnx.save(Converter(sys.argv[1]).convert(), sys.argv[2])


if __name__ == "__main__":
    main()
