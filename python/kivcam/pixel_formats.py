# GenICam pixel-format codes (PFNC and GigE Vision) by name: the formats the
# library converts. kivcam.convert and Frame take either form.

PIXEL_FORMATS = {
    "Mono8": 0x01080001,
    "BayerGR8": 0x01080008,
    "BayerRG8": 0x01080009,
    "BayerGB8": 0x0108000A,
    "BayerBG8": 0x0108000B,
    "Mono10Packed": 0x010C0004,
    "Mono12Packed": 0x010C0006,
    "BayerGR10Packed": 0x010C0026,
    "BayerRG10Packed": 0x010C0027,
    "BayerGB10Packed": 0x010C0028,
    "BayerBG10Packed": 0x010C0029,
    "BayerGR12Packed": 0x010C002A,
    "BayerRG12Packed": 0x010C002B,
    "BayerGB12Packed": 0x010C002C,
    "BayerBG12Packed": 0x010C002D,
    "Mono10PackedB": 0x010C003A,
    "Mono12PackedB": 0x010C003B,
    "BayerGR10PackedB": 0x010C003C,
    "BayerRG10PackedB": 0x010C003D,
    "BayerGB10PackedB": 0x010C003E,
    "BayerBG10PackedB": 0x010C003F,
    "BayerGR12PackedB": 0x010C0040,
    "BayerRG12PackedB": 0x010C0041,
    "BayerGB12PackedB": 0x010C0042,
    "BayerBG12PackedB": 0x010C0043,
    "Mono10PackedC": 0x010C0046,
    "Mono12p": 0x010C0047,
    "BayerBG10PackedC": 0x010C0052,
    "BayerBG12p": 0x010C0053,
    "BayerGB10PackedC": 0x010C0054,
    "BayerGB12p": 0x010C0055,
    "BayerGR10PackedC": 0x010C0056,
    "BayerGR12p": 0x010C0057,
    "BayerRG10PackedC": 0x010C0058,
    "BayerRG12p": 0x010C0059,
    "Mono10": 0x01100003,
    "Mono12": 0x01100005,
    "Mono16": 0x01100007,
    "BayerGR10": 0x0110000C,
    "BayerRG10": 0x0110000D,
    "BayerGB10": 0x0110000E,
    "BayerBG10": 0x0110000F,
    "BayerGR12": 0x01100010,
    "BayerRG12": 0x01100011,
    "BayerGB12": 0x01100012,
    "BayerBG12": 0x01100013,
    "BayerGR16": 0x0110002E,
    "BayerRG16": 0x0110002F,
    "BayerGB16": 0x01100030,
    "BayerBG16": 0x01100031,
    "YUV411_8_UYYVYY": 0x020C001E,
    "YCbCr411_8": 0x020C005A,
    "YUV422_8_UYVY": 0x0210001F,
    "YUV422_8": 0x02100032,
    "RGB565p": 0x02100035,
    "BGR565p": 0x02100036,
    "YCbCr422_8": 0x0210003B,
    "RGB8": 0x02180014,
    "BGR8": 0x02180015,
    "RGBa8": 0x02180016,
    "BGRa8": 0x02180017,
    "YUV8_UYV": 0x02180020,
    "YCbCr8": 0x0218005B,
    "RGB10V1Packed": 0x0220001C,
    "RGB10p32": 0x0220001D,
    "RGB10V1PackedB": 0x02200044,
    "RGB12V1Packed": 0x02240034,
    "RGB12V1PackedB": 0x02240045,
    "RGB10": 0x02300018,
    "BGR10": 0x02300019,
    "RGB12": 0x0230001A,
    "BGR12": 0x0230001B,
    "RGB16": 0x02300033,
}

NAMES = {code: name for name, code in PIXEL_FORMATS.items()}



def code_of(pixel_format):
    """The 32-bit code of a pixel format given by name or code."""
    if isinstance(pixel_format, str):
        try:
            return PIXEL_FORMATS[pixel_format]
        except KeyError:
            raise ValueError("unknown pixel format %r" % pixel_format) from None
    return int(pixel_format)


def name_of(code):
    """The name of a pixel-format code, or its hexadecimal form."""
    return NAMES.get(int(code), "0x%08X" % int(code))
