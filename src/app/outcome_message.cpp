#include "app/outcome_message.h"

#include <QMessageBox>
#include <QString>

namespace {

const char kTitle[] = "Corvanta — Cập nhật";

// One Ok button and deliberately no default button, for every box of the updater.
void showWarning(const char* text)
{
    QMessageBox::warning(nullptr, QString::fromUtf8(kTitle), QString::fromUtf8(text),
                         QMessageBox::Ok, QMessageBox::NoButton);
}

void showInformation(const char* text)
{
    QMessageBox::information(nullptr, QString::fromUtf8(kTitle), QString::fromUtf8(text),
                             QMessageBox::Ok, QMessageBox::NoButton);
}

} // namespace

void showOutcomeMessage(UpdateOutcome outcome)
{
    // A missing configuration is a warning although nothing failed; 0, 1 and 4 say "Mở lại"
    // while 2 and 3 say "Bạn có thể mở lại". Both differences are intended.
    switch (static_cast<int>(outcome)) {
    case NoConfig:
        showWarning("Bản này chưa cấu hình kênh cập nhật.\n\n"
                    "Mở lại Corvanta để tiếp tục dùng bản hiện tại.");
        break;
    case ManifestRejected:
        showWarning("Không tải được thông tin cập nhật.\nKiểm tra kết nối mạng rồi thử lại.\n\n"
                    "Mở lại Corvanta để tiếp tục dùng bản hiện tại.");
        break;
    case UpToDate:
        showInformation("Bạn đang dùng phiên bản mới nhất — không có gì để cập nhật.\n\n"
                        "Bạn có thể mở lại Corvanta để tiếp tục sử dụng.");
        break;
    case Updated:
        showInformation("Cập nhật thành công!\n\n"
                        "Bạn có thể mở lại Corvanta để tiếp tục sử dụng.");
        break;
    case Failed:
        showWarning("Cập nhật thất bại — đã khôi phục bản cũ.\n\n"
                    "Mở lại Corvanta để tiếp tục dùng bản hiện tại, hoặc thử cập nhật lại sau.");
        break;
    default:
        break;
    }
}

void showAppStillRunningMessage()
{
    showWarning("Không cập nhật được vì vẫn còn cửa sổ Corvanta đang mở.\n\n"
                "Đóng hết Corvanta rồi thử cập nhật lại.");
}

void showAnotherUpdaterMessage()
{
    showInformation("Một tiến trình cập nhật khác đang chạy.\n\nĐợi nó xong rồi mở lại Corvanta.");
}
