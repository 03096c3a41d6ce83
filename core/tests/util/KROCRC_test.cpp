// CRCs of any order: catalogue check values, setter limits, Python's zlib and binascii.
#include <gtest/gtest.h>

#include <random>

#include "KROCRC.h"
#include "KROScratchDirectory.h"
#include "KROTestOracles.h"

// Each form's catalogued CRC of "123456789".
TEST(KROCRC, CataloguedFormsGiveTheirCheckValues) {
    struct Form {
        bool reflected;
        std::uint32_t order, polynomial, initialValue, xorValue, check;
    };
    const Form forms[] = {
        {true, 32, 0x04C11DB7, 0xFFFFFFFF, 0xFFFFFFFF, 0xCBF43926},  // CRC-32
        {false, 16, 0x1021, 0, 0xFFFF, 0xCE3C},                      // CRC-16/GSM
        {true, 16, 0x8005, 0, 0, 0xBB3D},                            // CRC-16/ARC
        {false, 32, 0x04C11DB7, 0xFFFFFFFF, 0xFFFFFFFF, 0xFC891918}, // CRC-32/BZIP2
        {false, 8, 0x07, 0, 0, 0xF4},                                // CRC-8/SMBUS
        {false, 16, 0x1021, 0xFFFF, 0, 0x29B1},                      // CRC-16/IBM-3740
    };
    for (const Form& form : forms) {
        auto crc = form.reflected ? KROCRC::crc() : KROCRC::crcForCCITT16();
        crc->setOrder(form.order);
        crc->setPolynomial(form.polynomial);
        crc->setInitialValue(form.initialValue);
        crc->setXorValue(form.xorValue);
        EXPECT_EQ(crc->crcForString("123456789"), form.check) << std::hex << form.check;
    }
    EXPECT_EQ(KROCRC::crc()->crcForBuffer(nullptr, 0), 0u);
    EXPECT_EQ(KROCRC::crcForCCITT16()->crcForString(""), 0xFFFFu);
    EXPECT_EQ(KROCRC::reflect(0xF0F1, 4), 0x8u);
    EXPECT_EQ(KROCRC::reflect(0x04C11DB7, 32), 0xEDB88320u);
}

// Out-of-range orders and values are ignored; orders below 8 stay within their mask.
TEST(KROCRC, SettersKeepTheirLimits) {
    auto crc = KROCRC::crcForCCITT16();
    crc->crcForString("x");
    const KROCRC::Table* table = crc->table();
    crc->setOrder(0);
    crc->setOrder(33);
    crc->setPolynomial(0x11021);
    crc->setInitialValue(0x10000);
    crc->setXorValue(0x1FFFF);
    EXPECT_EQ(crc->table(), table);
    EXPECT_EQ(crc->crcForString("123456789"), 0xCE3Cu);
    for (std::uint32_t order = 12; order > 0; --order) {
        crc->setOrder(order);
        EXPECT_EQ(crc->table(), nullptr);
        crc->setPolynomial(3 & crc->mask());
        crc->setReflectInput(order % 2);
        EXPECT_LE(crc->crcForString("123456789"), crc->mask()) << order;
    }
    crc->setPolynomial(1);
    EXPECT_EQ(crc->table(), nullptr);
    crc->crcForString("x");
    crc->setReflectInput(false);
    EXPECT_EQ(crc->table(), nullptr);
}

// Random data of many lengths against zlib.crc32 and binascii.crc_hqx.
TEST(KROCRC, AgreesWithPythonZlibAndBinascii) {
    KROScratchDirectory directory;
    std::mt19937 random(8006);
    std::string files, ours;
    for (std::size_t i = 0; i < 50; ++i) {
        KROData data(i < 10 ? i * 17 : random() % 5000);
        std::generate(data.begin(), data.end(), [&] { return std::uint8_t(random()); });
        KROWriteFile(directory / std::to_string(i), data);
        files += " " + (directory / std::to_string(i)).string();
        ours += std::to_string(KROCRC::crc()->crcForData(data)) + " " +
                std::to_string(KROCRC::crcForCCITT16()->crcForData(data)) + "\n";
    }
    EXPECT_EQ(KRORunPython("import sys, zlib, binascii\n"
                           "for path in sys.argv[1:]:\n"
                           "    d = open(path, 'rb').read()\n"
                           "    print(zlib.crc32(d), binascii.crc_hqx(d, 0) ^ 0xFFFF)\n",
                           files)
                  .output,
              ours);
}
